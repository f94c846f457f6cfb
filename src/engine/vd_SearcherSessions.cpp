#include "engine/UserActivityNotifier.h"
#include "engine/vd_Searcher.h"
#include "utils/vd_FileUtils.h"

#include <QDir>
#include <QFile>
#include <QUrl>

#include <dirent.h>
#include <sys/stat.h>

#include <cmath>
#include <ctime>
#include <map>
#include <mutex>

std::atomic<double> vd_Searcher::gLastSessionActive{0.0};

namespace {

constexpr double kCameOnlineAfterSeconds = 20.0;
constexpr double kSessionLifetimeSeconds = 2000.0;
constexpr double kReferenceDateOffset = 978307200.0;

// The sessions folder, or none when it is missing or a link: expiry deletes what it finds there.
std::optional<QString> sessionsFolder(const QString &storageRoot)
{
    return vd_FileUtils::storageRootOwnFolder(storageRoot, QStringLiteral("data.vdldata/sessions"), false);
}

// The session files' names, read with one directory scan and no stat per entry. An agent with no session
// looks every second; the kernel may drop a folder's entries from memory meanwhile, so the folder is read
// again only when its modification time moved, or while it is too recent to tell two changes apart.
QStringList sessionFileNames(const QString &folder)
{
    struct Listing
    {
        ino_t inode;
        timespec modified;
        QStringList names;
    };
    static std::mutex listingsLock;
    static std::map<QString, Listing> listings; // guarded by listingsLock
    DIR *dir = ::opendir(QFile::encodeName(folder).constData());
    if (!dir)
        return {};
    struct stat info;
    const bool known = ::fstat(dirfd(dir), &info) == 0;
    const bool settled = known && std::time(nullptr) - info.st_mtim.tv_sec > 2;
    if (settled) {
        const std::lock_guard guard(listingsLock);
        const auto found = listings.find(folder);
        if (found != listings.end() && found->second.inode == info.st_ino &&
            found->second.modified.tv_sec == info.st_mtim.tv_sec &&
            found->second.modified.tv_nsec == info.st_mtim.tv_nsec) {
            ::closedir(dir);
            return found->second.names;
        }
    }
    QStringList names;
    while (const dirent *entry = ::readdir(dir)) {
        const QString name = QFile::decodeName(entry->d_name);
        if (!name.startsWith(u'.') && name.endsWith(u".json"))
            names << name;
    }
    ::closedir(dir);
    if (settled) {
        const std::lock_guard guard(listingsLock);
        listings.insert_or_assign(folder, Listing{info.st_ino, info.st_mtim, names});
    }
    return names;
}

} // namespace

double vd_Searcher::referenceSeconds(const QDateTime &date)
{
    return double(date.toMSecsSinceEpoch()) / 1000.0 - kReferenceDateOffset;
}

std::optional<QJsonObject> vd_Searcher::get_sessions(const QString &storageRoot, bool readSessionFiles)
{
    const std::optional<QString> folder = sessionsFolder(storageRoot);
    if (!folder)
        return std::nullopt;
    QJsonObject sessions;
    for (const QString &name : sessionFileNames(*folder)) {
        const QString path = *folder + u'/' + name;
        const QString id = name.chopped(5);
        if (readSessionFiles)
            sessions.insert(id, vd_FileUtils::readJsonFileMutableDictionary(path));
        else
            sessions.insert(
                id, QJsonObject{{QStringLiteral("session_file_url"), QUrl::fromLocalFile(path).toString()}});
    }
    if (sessions.isEmpty())
        return std::nullopt;
    return sessions;
}

std::optional<QJsonObject> vd_Searcher::isUserActivelyUsingUs(const QString &storageRoot,
                                                              const QDateTime &now)
{
    std::optional<QJsonObject> sessions = get_sessions(storageRoot, false);
    if (!sessions)
        return std::nullopt;
    const double nowSeconds = referenceSeconds(now);
    if (nowSeconds - gLastSessionActive.load() > kCameOnlineAfterSeconds)
        Q_EMIT UserActivityNotifier::instance().UserCameOnline();
    gLastSessionActive.store(nowSeconds);
    return sessions;
}

void vd_Searcher::eraseOldOSSessions(const QString &storageRoot, const QDateTime &now)
{
    const std::optional<QString> folder = sessionsFolder(storageRoot);
    if (!folder)
        return;
    const double nowSeconds = vd_FileUtils::JSONDate(now);
    for (const QString &name : sessionFileNames(*folder)) {
        const QString path = *folder + u'/' + name;
        const QJsonObject session = vd_FileUtils::readJsonFileMutableDictionary(path);
        const double date =
            vd_FileUtils::JSONDate(vd_FileUtils::dateFromJSON(session.value(QStringLiteral("date"))));
        if (std::abs(date - nowSeconds) <= kSessionLifetimeSeconds)
            continue;
        // Expired sessions are the WebApp's leftovers and are deleted outright, folders named like one too.
        QFileInfo(path).isDir() && !QFileInfo(path).isSymLink() ? QDir(path).removeRecursively()
                                                                : QFile::remove(path);
    }
}
