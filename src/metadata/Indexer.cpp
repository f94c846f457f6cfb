#include "metadata/Indexer.h"

#include "metadata/Extractors.h"
#include "metadata/MetadataLog.h"

#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

namespace {

constexpr std::uint32_t kWatchMask = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_CLOSE_WRITE |
                                     IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR | IN_DONT_FOLLOW |
                                     IN_EXCL_UNLINK;
constexpr std::size_t kCommitEvery = 20000;

std::int64_t mtimeOf(const struct stat &st)
{
    return std::int64_t(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
}

bool endsWith(std::string_view text, std::string_view suffix)
{
    return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

// Names a person never wants among search results: hidden, backup, lock, temporary and cache files. A
// folder merely named "Caches" is the person's own; what lies in a Library's Caches is left out by search.
bool isSystemName(std::string_view name)
{
    if (name.empty() || name.front() == '.' || name.back() == '~')
        return true;
    if (name.size() > 1 && name.front() == '#' && name.back() == '#')
        return true;
    for (std::string_view suffix : {".tmp", ".temp", ".swp", ".swo", ".lock", ".part", ".crdownload"}) {
        if (endsWith(name, suffix))
            return true;
    }
    return name == "cache" || name == "Cache";
}

bool isSystemPath(std::string_view path)
{
    for (std::string_view prefix : {"/usr/", "/var/", "/etc/", "/opt/", "/boot/", "/lib", "/bin/", "/sbin/",
                                    "/snap/", "/run/", "/tmp/", "/srv/", "/proc/", "/sys/", "/dev/"}) {
        if (path.substr(0, prefix.size()) == prefix)
            return true;
    }
    return false;
}

std::string joinPath(const std::string &folder, std::string_view name)
{
    std::string path = folder;
    if (path.empty() || path.back() != '/')
        path.push_back('/');
    path.append(name);
    return path;
}

// A small but certain share of the CPU for the calling thread. SCHED_IDLE would starve it while other work
// keeps both cores busy, and a file saved minutes ago would still not be found; nice 19 under SCHED_BATCH
// still yields to everything interactive. Idle I/O leaves the disk to others.
void lowerPriority()
{
    sched_param param{};
    sched_setscheduler(0, SCHED_BATCH, &param);
    setpriority(PRIO_PROCESS, id_t(syscall(SYS_gettid)), 19);
    constexpr int kWhoProcess = 1, kClassIdle = 3, kClassShift = 13;
    syscall(SYS_ioprio_set, kWhoProcess, 0, kClassIdle << kClassShift);
}

} // namespace

Indexer::Indexer(MetadataConfig config, NameTable &table)
    : m_config(std::move(config))
    , m_table(table)
{
    for (const QString &root : m_config.roots) {
        const QString clean = QDir::cleanPath(root);
        if (clean.isEmpty() || !clean.startsWith(u'/'))
            continue;
        m_roots.push_back(QFile::encodeName(clean).toStdString());
        m_rootSet.insert(m_roots.back());
    }
    for (const char *name : {"node_modules", "__pycache__", "CMakeFiles", "lost+found"})
        m_excludedNames.insert(name);
    for (const QString &exclude : m_config.excludes) {
        if (exclude.startsWith(u'/'))
            m_excludedPaths.push_back(QFile::encodeName(QDir::cleanPath(exclude)).toStdString());
        else if (!exclude.isEmpty())
            m_excludedNames.insert(QFile::encodeName(exclude).toStdString());
    }
}

Indexer::~Indexer()
{
    stop();
    if (m_inotify >= 0)
        close(m_inotify);
    if (m_wake >= 0)
        close(m_wake);
}

void Indexer::start()
{
    if (m_thread.joinable())
        return;
    m_stop = false;
    m_wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    m_thread = std::thread([this] { run(); });
}

void Indexer::stop()
{
    m_stop = true;
    if (m_wake >= 0) {
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = write(m_wake, &one, sizeof one);
    }
    if (m_thread.joinable())
        m_thread.join();
}

void Indexer::requestRescan()
{
    m_idle = false;
    m_needCatchUp = true;
    if (m_wake >= 0) {
        const std::uint64_t one = 1;
        [[maybe_unused]] const ssize_t written = write(m_wake, &one, sizeof one);
    }
}

bool Indexer::openStore()
{
    m_store = IndexStore::open(m_config.storePath);
    if (!m_store) {
        qCWarning(lcMetadata).noquote()
            << QStringLiteral("metadata store %1 cannot be opened; the index stays empty")
                   .arg(m_config.storePath);
        return false;
    }
    return true;
}

bool Indexer::loadOnly()
{
    if (!openStore())
        return false;
    m_table.replaceAll(m_store->loadFiles());
    return true;
}

bool Indexer::runOnce()
{
    if (!openStore())
        return false;
    loadOrCrawl();
    if (m_config.extract) {
        while (extractSome(1000)) {
        }
    }
    m_idle = true;
    return true;
}

void Indexer::run()
{
    if (m_config.lowPriority)
        lowerPriority();
    if (!openStore())
        return;
    if (m_config.watch) {
        m_inotify = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
        if (m_inotify < 0)
            qCWarning(lcMetadata).noquote()
                << QStringLiteral("inotify is not available (%1); changes are seen at the next start")
                       .arg(QString::fromLocal8Bit(strerror(errno)));
    }
    loadOrCrawl();
    using Clock = std::chrono::steady_clock;
    auto lastRescan = Clock::now();
    bool extracting = m_config.extract;
    while (!m_stop) {
        if (m_needCatchUp.exchange(false)) {
            catchUp();
            lastRescan = Clock::now();
        }
        // Folders beyond the watch limit are only seen by a periodic catch-up.
        if (m_watchLimitLogged && Clock::now() - lastRescan > std::chrono::minutes(10))
            m_needCatchUp = true;
        m_idle = !extracting && !m_needCatchUp;
        pollfd fds[2] = {{m_inotify, POLLIN, 0}, {m_wake, POLLIN, 0}};
        const int ready = poll(fds, 2, extracting ? 0 : 1000);
        if (m_stop)
            break;
        if (ready > 0 && (fds[1].revents & POLLIN)) {
            std::uint64_t value = 0;
            [[maybe_unused]] const ssize_t got = read(m_wake, &value, sizeof value);
        }
        if (ready > 0 && (fds[0].revents & POLLIN)) {
            m_idle = false;
            handleEvents();
            extracting = m_config.extract;
            continue;
        }
        if (extracting)
            extracting = extractSome(200);
    }
}

void Indexer::noteChange()
{
    m_store->setMeta(QStringLiteral("last_change"), QString::number(QDateTime::currentSecsSinceEpoch()));
}

void Indexer::commitIfLarge()
{
    if (++m_uncommitted < kCommitEvery)
        return;
    m_uncommitted = 0;
    m_store->commit();
    m_store->begin();
}

void Indexer::loadOrCrawl()
{
    std::vector<FileRecord> loaded = m_store->loadFiles();
    m_store->begin();
    if (loaded.empty()) {
        m_bulk = true;
        m_crawling = true;
        m_crawlStarted = std::chrono::steady_clock::now();
        m_progressLogged = m_crawlStarted;
        std::vector<Pending> pending;
        for (const std::string &root : m_roots) {
            struct stat st
            {};
            if (lstat(root.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
                continue;
            FileRecord record;
            record.name = root;
            record.mtimeNs = mtimeOf(st);
            record.flags = FileRecord::Folder;
            put(record, true);
            pending.push_back(Pending{record.id, root, record.flags, true, st.st_dev});
        }
        qCInfo(lcMetadata).noquote()
            << QStringLiteral("indexing %1 folders from scratch").arg(pending.size());
        crawl(std::move(pending));
        if (m_bulk)
            m_table.replaceAll(std::move(m_bulkRecords));
        m_bulkRecords = {};
        m_bulk = false;
        m_crawling = false;
        m_percent = 100;
        noteChange();
        m_store->setMeta(QStringLiteral("crawl_progress"), QStringLiteral("100"));
        reportProgress(true);
        m_store->commit();
        return;
    }
    m_table.replaceAll(std::move(loaded));
    m_store->commit();
    catchUp();
}

void Indexer::catchUp()
{
    m_crawling = true;
    m_store->begin();
    // Roots that left the settings go; new ones are crawled.
    std::vector<Pending> pending;
    std::vector<Pending> folders;
    {
        const NameTable::Reader reader = m_table.read();
        for (std::uint32_t root : reader.roots()) {
            if (!m_rootSet.count(reader.path(root)))
                pending.push_back(Pending{root, {}, 0, false, 0});
        }
    }
    for (const Pending &gone : pending)
        removeTree(gone.id);
    pending.clear();
    for (const std::string &root : m_roots) {
        struct stat st
        {};
        std::uint32_t known = m_table.read().idForPath(root).value_or(0);
        if (known && m_table.read().byId(known)->parent != 0)
            known = 0; // inside another root: not a root record yet
        if (lstat(root.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
            if (known)
                removeTree(known);
            continue;
        }
        if (!known) {
            FileRecord record;
            record.name = root;
            record.mtimeNs = mtimeOf(st);
            record.flags = FileRecord::Folder;
            put(record, true);
            pending.push_back(Pending{record.id, root, record.flags, true, st.st_dev});
        }
    }
    crawl(std::move(pending));

    // Every known folder: watch it, and read it again when it changed since its entries were read.
    const auto scanned = m_store->folderScanTimes();
    {
        const NameTable::Reader reader = m_table.read();
        auto visit = [&](const RecordView &r) {
            if (r.flags & FileRecord::Folder)
                folders.push_back(Pending{r.id, reader.path(r), r.flags, false, 0});
            return true;
        };
        reader.scanMain(visit);
        reader.scanDelta(visit);
    }
    std::vector<Pending> changed;
    std::unordered_map<std::string, unsigned long> rootDevices;
    for (const std::string &root : m_roots) {
        struct stat st
        {};
        if (stat(root.c_str(), &st) == 0)
            rootDevices.emplace(root, st.st_dev);
    }
    for (Pending &folder : folders) {
        if (m_stop)
            return;
        struct stat st
        {};
        if (folder.path.empty() || lstat(folder.path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
            continue; // its parent changed too and drops it
        folder.device = st.st_dev;
        addWatch(folder.path, folder.id);
        const auto it = scanned.find(folder.id);
        if (it == scanned.end() || it->second != mtimeOf(st))
            changed.push_back(folder);
    }
    if (!changed.empty())
        qCInfo(lcMetadata).noquote() << QStringLiteral("catching up %1 changed folders").arg(changed.size());
    for (const Pending &folder : changed) {
        std::vector<Pending> next;
        scanFolder(folder, next);
        crawl(std::move(next));
    }
    if (!changed.empty())
        noteChange();
    m_store->setMeta(QStringLiteral("crawl_progress"), QStringLiteral("100"));
    m_store->commit();
    m_table.compactIfLarge();
    m_crawling = false;
    m_percent = 100;
}

void Indexer::crawl(std::vector<Pending> pending)
{
    while (!pending.empty() && !m_stop) {
        const Pending folder = std::move(pending.back());
        pending.pop_back();
        scanFolder(folder, pending);
        ++m_foldersDone;
        m_foldersWaiting = pending.size();
        takeEventsDuringCrawl();
        if (m_foldersDone % 256 == 0) {
            m_percent = int(m_foldersDone * 100 / (m_foldersDone + pending.size()));
            m_store->setMeta(QStringLiteral("crawl_progress"), QString::number(m_percent.load()));
            reportProgress(false);
            // A first crawl shows what it has read so far, rebuilt each time that doubles: names are
            // searchable long before a large tree is read, at twice the cost of one build in all.
            constexpr std::size_t kFirstShown = 4096;
            if (m_bulk && m_bulkRecords.size() >= std::max(kFirstShown, 2 * m_bulkShown)) {
                m_table.replaceAll(m_bulkRecords);
                m_bulkShown = m_bulkRecords.size();
            }
            if (!m_bulk)
                m_table.compactIfLarge();
        }
    }
    m_foldersWaiting = 0;
}

void Indexer::takeEventsDuringCrawl()
{
    pollfd fd{m_inotify, POLLIN, 0};
    if (m_handlingEvents || m_inotify < 0 || poll(&fd, 1, 0) <= 0)
        return; // a crawl of a folder that events created finishes before the next events
    // What the user changes now goes before the rest of the crawl. Event handling needs a table that holds
    // everything read so far, so a first crawl gives up gathering its records and fills the table as it goes.
    if (m_bulk) {
        m_table.replaceAll(std::move(m_bulkRecords));
        m_bulkRecords = {};
        m_bulk = false;
    }
    m_store->commit();
    handleEvents();
    m_store->begin();
}

void Indexer::reportProgress(bool now)
{
    using namespace std::chrono;
    const steady_clock::time_point clock = steady_clock::now();
    if (!now && clock - m_progressWritten < seconds(2))
        return;
    m_progressWritten = clock;
    // A rate over the work done so far; the crawl's is a floor, as folders still unread hold more.
    double secondsLeft = -1;
    if (m_crawling && m_foldersDone > 0)
        secondsLeft = duration<double>(clock - m_crawlStarted).count() * double(m_foldersWaiting) /
                      double(m_foldersDone);
    else if (m_extractDone > 0)
        secondsLeft = duration<double>(clock - m_extractStarted).count() * double(m_extractWaiting) /
                      double(m_extractDone);
    const QJsonObject progress{{QStringLiteral("crawling"), m_crawling.load()},
                               {QStringLiteral("folders"), qint64(m_foldersDone)},
                               {QStringLiteral("files"), qint64(m_filesDone)},
                               {QStringLiteral("folders_waiting"), qint64(m_foldersWaiting)},
                               {QStringLiteral("contents"), qint64(m_extractDone)},
                               {QStringLiteral("contents_waiting"), qint64(m_extractWaiting)},
                               {QStringLiteral("seconds_left"), qint64(secondsLeft)}};
    m_store->setMeta(QStringLiteral("progress"),
                     QString::fromUtf8(QJsonDocument(progress).toJson(QJsonDocument::Compact)));
    // Other processes (`vandrel status`) see only what is committed.
    m_store->commit();
    m_store->begin();
    const bool working = m_crawling || m_extractWaiting > 0;
    if (working && clock - m_progressLogged >= minutes(1)) {
        m_progressLogged = clock;
        qCInfo(lcMetadata).noquote() << QStringLiteral(
                                            "indexing: %1 folders and %2 files read, %3 folders waiting; "
                                            "contents of %4 files read, %5 waiting; about %6 s left")
                                            .arg(m_foldersDone)
                                            .arg(m_filesDone)
                                            .arg(m_foldersWaiting)
                                            .arg(m_extractDone)
                                            .arg(m_extractWaiting)
                                            .arg(static_cast<long long>(secondsLeft));
    }
}

bool Indexer::excluded(const std::string &parentPath, const char *name, bool isFolder) const
{
    if (isFolder && name[0] == '.')
        return true;
    if (m_excludedNames.count(name))
        return true;
    if (!isFolder && m_excludedPaths.empty())
        return false;
    const std::string path = joinPath(parentPath, name);
    if (isFolder && m_rootSet.count(path))
        return true; // crawled as a root of its own
    for (const std::string &excludedPath : m_excludedPaths) {
        if (path == excludedPath ||
            (path.size() > excludedPath.size() && path.compare(0, excludedPath.size(), excludedPath) == 0 &&
             path[excludedPath.size()] == '/'))
            return true;
    }
    return false;
}

bool Indexer::inSystemFolder(const std::string &folderPath) const
{
    if (!isSystemPath(folderPath + "/"))
        return false;
    // A home or volume that happens to live under such a folder (a test home in /tmp) is indexed as itself.
    for (const std::string &root : m_roots) {
        if (root != "/" && (folderPath == root || folderPath.compare(0, root.size() + 1, root + "/") == 0))
            return false;
    }
    return true;
}

FileRecord Indexer::makeRecord(std::uint32_t parent, std::uint8_t parentFlags, const std::string &parentPath,
                               const char *name, const struct stat &st) const
{
    FileRecord record;
    record.parent = parent;
    record.name = name;
    record.mtimeNs = mtimeOf(st);
    const bool folder = S_ISDIR(st.st_mode);
    record.size = folder ? 0 : std::int64_t(st.st_size);
    record.type = ContentTypes::instance().codeForFileName(record.name, folder);
    record.flags = folder ? FileRecord::Folder : 0;
    if ((parentFlags & FileRecord::System) || isSystemName(record.name) || inSystemFolder(parentPath))
        record.flags |= FileRecord::System;
    return record;
}

void Indexer::put(FileRecord &record, bool isNew)
{
    if (isNew)
        record.id = m_store->insertFile(record);
    else
        m_store->updateFile(record);
    if (record.id == 0)
        return;
    if (!record.isFolder())
        ++m_filesDone;
    if (m_bulk) {
        m_bulkRecords.push_back(record);
    } else {
        m_table.upsert(record);
        constexpr std::size_t kMaxChangedFiles = 10000; // beyond that the next pass finds them
        if (!record.isFolder() && Extractors::wants(record.type) && m_changedFiles.size() < kMaxChangedFiles)
            m_changedFiles.push_back(record.id);
    }
    commitIfLarge();
}

void Indexer::addWatch(const std::string &path, std::uint32_t id)
{
    if (m_inotify < 0)
        return;
    const int wd = inotify_add_watch(m_inotify, path.c_str(), kWatchMask);
    if (wd >= 0) {
        m_wdToFolder[wd] = id;
        return;
    }
    if (errno == ENOSPC && !m_watchLimitLogged) {
        m_watchLimitLogged = true;
        qCWarning(lcMetadata).noquote()
            << QStringLiteral("inotify watch limit reached at %1 folders; the rest is caught up by rescans")
                   .arg(m_wdToFolder.size());
    }
}

void Indexer::scanFolder(const Pending &folder, std::vector<Pending> &next)
{
    const int fd = open(folder.path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0)
        return;
    struct stat self
    {};
    fstat(fd, &self);
    addWatch(folder.path, folder.id);
    DIR *dir = fdopendir(fd);
    if (!dir) {
        close(fd);
        return;
    }
    std::unordered_map<std::string, FileRecord> known;
    if (!folder.fresh) {
        for (FileRecord &child : m_store->children(folder.id))
            known.emplace(child.name, std::move(child));
    }
    while (dirent *entry = readdir(dir)) {
        const char *name = entry->d_name;
        if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0')))
            continue;
        const bool maybeFolder = entry->d_type == DT_DIR || entry->d_type == DT_UNKNOWN;
        if (excluded(folder.path, name, maybeFolder && entry->d_type == DT_DIR))
            continue;
        struct stat st
        {};
        if (fstatat(dirfd(dir), name, &st, AT_SYMLINK_NOFOLLOW) != 0)
            continue;
        const bool isFolder = S_ISDIR(st.st_mode);
        if (isFolder && entry->d_type == DT_UNKNOWN && excluded(folder.path, name, true))
            continue;
        if (isFolder && folder.device != 0 && st.st_dev != folder.device)
            continue; // another file system: a volume of its own or a pseudo mount
        FileRecord record = makeRecord(folder.id, folder.flags, folder.path, name, st);
        bool isNew = true;
        if (auto it = known.find(record.name); it != known.end()) {
            FileRecord &old = it->second;
            if (old.isFolder() != isFolder) {
                removeTree(old.id);
            } else {
                isNew = false;
                record.id = old.id;
                if (old.mtimeNs != record.mtimeNs || old.size != record.size || old.type != record.type ||
                    old.flags != record.flags)
                    put(record, false);
            }
            known.erase(it);
        }
        if (isNew)
            put(record, true);
        if (isFolder && isNew && record.id != 0)
            next.push_back(Pending{record.id, joinPath(folder.path, name), record.flags, true, st.st_dev});
    }
    closedir(dir);
    for (const auto &[name, gone] : known)
        removeTree(gone.id);
    m_store->setFolderScanned(folder.id, mtimeOf(self));
}

void Indexer::removeTree(std::uint32_t id)
{
    std::vector<std::uint32_t> ids = m_store->descendants(id);
    ids.push_back(id);
    m_store->deleteFiles(ids);
    for (std::uint32_t gone : ids)
        m_table.remove(gone);
}

void Indexer::refreshEntry(std::uint32_t parent, const std::string &name)
{
    std::string folderPath;
    std::uint8_t folderFlags = 0;
    std::uint32_t existing = 0;
    bool oldFolder = false;
    {
        // Read what the table knows, and let go of it before writing.
        const NameTable::Reader reader = m_table.read();
        const std::optional<RecordView> folder = reader.byId(parent);
        if (!folder)
            return;
        folderPath = reader.path(*folder);
        folderFlags = folder->flags;
        existing = reader.idForPath(joinPath(folderPath, name)).value_or(0);
        if (existing)
            oldFolder = reader.byId(existing)->flags & FileRecord::Folder;
    }
    struct stat st
    {};
    const std::string path = joinPath(folderPath, name);
    const bool present =
        lstat(path.c_str(), &st) == 0 && !excluded(folderPath, name.c_str(), S_ISDIR(st.st_mode));
    const bool isFolder = present && S_ISDIR(st.st_mode);
    if (existing && (!present || oldFolder != isFolder)) {
        removeTree(existing);
        existing = 0;
    }
    if (!present)
        return;
    FileRecord record = makeRecord(parent, folderFlags, folderPath, name.c_str(), st);
    if (existing) {
        record.id = existing;
        put(record, false);
        return;
    }
    put(record, true);
    if (isFolder && record.id != 0)
        crawl({Pending{record.id, path, record.flags, true, static_cast<unsigned long>(st.st_dev)}});
}

void Indexer::moveEntry(std::uint32_t fromParent, const std::string &fromName, std::uint32_t toParent,
                        const std::string &toName)
{
    std::optional<std::uint32_t> moved, replaced;
    std::string toFolderPath;
    std::uint8_t toFlags = 0;
    {
        const NameTable::Reader reader = m_table.read();
        const std::optional<RecordView> from = reader.byId(fromParent);
        const std::optional<RecordView> to = reader.byId(toParent);
        if (!from || !to)
            return;
        toFolderPath = reader.path(*to);
        toFlags = to->flags;
        moved = reader.idForPath(joinPath(reader.path(*from), fromName));
        replaced = reader.idForPath(joinPath(toFolderPath, toName));
    }
    if (!moved) {
        refreshEntry(toParent, toName);
        return;
    }
    if (replaced && replaced != moved)
        removeTree(*replaced);
    struct stat st
    {};
    const std::string path = joinPath(toFolderPath, toName);
    if (lstat(path.c_str(), &st) != 0 || excluded(toFolderPath, toName.c_str(), S_ISDIR(st.st_mode))) {
        removeTree(*moved);
        return;
    }
    // The record keeps its id, so everything below a moved folder follows it without being touched.
    FileRecord record = makeRecord(toParent, toFlags, toFolderPath, toName.c_str(), st);
    record.id = *moved;
    put(record, false);
}

void Indexer::handleEvents()
{
    struct MoveFrom
    {
        std::uint32_t parent;
        std::string name;
    };
    std::unordered_map<std::uint32_t, MoveFrom> movesFrom;
    std::vector<std::pair<std::uint32_t, std::string>> touched;
    alignas(inotify_event) char buffer[64 * 1024];
    m_handlingEvents = true;
    m_store->begin();
    for (;;) {
        const ssize_t length = read(m_inotify, buffer, sizeof buffer);
        if (length <= 0)
            break;
        for (char *p = buffer; p < buffer + length;) {
            const auto *event = reinterpret_cast<const inotify_event *>(p);
            p += sizeof(inotify_event) + event->len;
            if (event->mask & IN_Q_OVERFLOW) {
                if (!m_overflowLogged)
                    qCWarning(lcMetadata).noquote()
                        << "inotify event queue overflowed; rescanning the indexed folders";
                m_overflowLogged = true;
                m_needCatchUp = true;
                continue;
            }
            const auto folder = m_wdToFolder.find(event->wd);
            if (folder == m_wdToFolder.end())
                continue;
            if (event->mask & IN_IGNORED) {
                m_wdToFolder.erase(folder);
                continue;
            }
            if (event->mask & (IN_UNMOUNT | IN_DELETE_SELF | IN_MOVE_SELF)) {
                // A root (or a volume under it) went away or moved: the catch-up sorts out what remains.
                if ((event->mask & IN_UNMOUNT) ||
                    m_table.read().byId(folder->second).value_or(RecordView{1, 1}).parent == 0)
                    m_needCatchUp = true;
                continue;
            }
            if (event->len == 0)
                continue;
            const std::string name(event->name);
            if (event->mask & IN_MOVED_FROM) {
                movesFrom[event->cookie] = MoveFrom{folder->second, name};
            } else if ((event->mask & IN_MOVED_TO) && movesFrom.count(event->cookie)) {
                const MoveFrom from = movesFrom[event->cookie];
                movesFrom.erase(event->cookie);
                moveEntry(from.parent, from.name, folder->second, name);
            } else {
                touched.emplace_back(folder->second, name);
            }
        }
        for (const auto &[parent, name] : touched)
            refreshEntry(parent, name);
        touched.clear();
    }
    // A move whose other half never came left the indexed folders.
    for (const auto &[cookie, from] : movesFrom)
        refreshEntry(from.parent, from.name);
    noteChange();
    m_store->commit();
    m_handlingEvents = false;
    m_table.compactIfLarge();
}

bool Indexer::extractSome(int budgetMs)
{
    std::vector<ContentTypes::Code> codes;
    for (std::size_t code = 0; code < ContentTypes::instance().count(); ++code) {
        if (Extractors::wants(ContentTypes::Code(code)))
            codes.push_back(ContentTypes::Code(code));
    }
    constexpr std::size_t kBatch = 256;
    std::vector<std::uint32_t> pending;
    const bool changedFirst = !m_changedFiles.empty();
    if (changedFirst) {
        // What the user just saved is searchable before the backlog of a crawl.
        pending.swap(m_changedFiles);
        std::sort(pending.begin(), pending.end());
        pending.erase(std::unique(pending.begin(), pending.end()), pending.end());
    } else {
        pending = m_store->pendingExtraction(codes, m_extractCursor, kBatch);
        if (pending.empty() && m_extractCursor != 0) {
            m_extractCursor = 0; // a new pass finds files that changed behind the cursor
            pending = m_store->pendingExtraction(codes, 0, kBatch);
        }
        if (!pending.empty() && !m_extractPass) {
            m_extractPass = true;
            m_extractStarted = std::chrono::steady_clock::now();
            m_extractDone = 0;
            m_extractWaiting =
                pending.size() < kBatch ? pending.size() : m_store->pendingExtractionCount(codes);
        }
    }
    if (pending.empty()) {
        if (m_extractPass || m_extractDone > 0) {
            m_extractPass = false;
            m_extractWaiting = 0;
            m_store->begin();
            reportProgress(true);
            m_store->commit();
            m_extractDone = 0;
        }
        return false;
    }
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(budgetMs);
    m_store->begin();
    for (std::size_t i = 0; i < pending.size(); ++i) {
        const std::uint32_t id = pending[i];
        if (!changedFirst)
            m_extractCursor = id;
        ++m_extractDone;
        if (m_extractWaiting > 0)
            --m_extractWaiting;
        std::string path;
        std::optional<RecordView> record;
        ContentTypes::Code type = 0;
        std::int64_t mtime = 0, size = 0;
        {
            const NameTable::Reader reader = m_table.read();
            record = reader.byId(id);
            if (record) {
                path = reader.path(*record);
                type = record->type;
                mtime = record->mtimeNs;
                size = record->size;
            }
        }
        struct stat st
        {};
        if (path.empty() || lstat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) {
            // Gone, or a link or device that only looks like a document by its name.
            m_store->storeExtraction(id, mtime, size, true, {}, {});
            continue;
        }
        const Extraction result = Extractors::extract(
            QFile::decodeName(path.c_str()), type, m_config.extractorMaxBytes, m_config.extractorTimeoutMs);
        QString words = result.text;
        for (const auto &[name, value] : result.attributes) {
            if (name == u"kMDItemTitle" || name == u"kMDItemAuthors" || name == u"kMDItemKeywords" ||
                name == u"kMDItemOMUserTags" || name == u"kMDItemSubject")
                words += u'\n' + value;
        }
        m_store->storeExtraction(id, mtime, size, result.failed, result.attributes, words);
        if (m_stop || std::chrono::steady_clock::now() > deadline) {
            if (changedFirst)
                m_changedFiles.insert(m_changedFiles.end(), pending.begin() + qsizetype(i) + 1,
                                      pending.end());
            break;
        }
    }
    reportProgress(false);
    m_store->commit();
    return true;
}
