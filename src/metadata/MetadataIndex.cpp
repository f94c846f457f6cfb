#include "metadata/MetadataIndex.h"

#include "metadata/Folding.h"
#include "metadata/IndexStore.h"
#include "metadata/Indexer.h"
#include "metadata/MetadataLog.h"
#include "metadata/NameTable.h"
#include "metadata/QueryEvaluator.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QThread>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <mutex>

struct MetadataIndex::Private
{
    MetadataConfig config;
    NameTable table;
    Indexer indexer;
    mutable std::mutex readerLock;
    mutable std::unique_ptr<IndexStore> reader; // guarded by readerLock; opened on first use

    explicit Private(MetadataConfig c)
        : config(std::move(c))
        , indexer(config, table)
    {}

    QueryEvaluator::IdSet resolve(const QueryComparison &comparison) const;
    std::vector<std::string> liveScan(const QueryNode &query, const std::string &scope, bool descending,
                                      std::size_t maxCount) const;
};

MetadataIndex::MetadataIndex(MetadataConfig config)
    : d(std::make_unique<Private>(std::move(config)))
{}

MetadataIndex::~MetadataIndex()
{
    stop();
}

void MetadataIndex::start()
{
    d->indexer.start();
}

void MetadataIndex::stop()
{
    d->indexer.stop();
}

bool MetadataIndex::loadStored()
{
    return d->indexer.loadOnly();
}

void MetadataIndex::rescan()
{
    d->indexer.requestRescan();
}

bool MetadataIndex::updateNow()
{
    return d->indexer.runOnce();
}

bool MetadataIndex::waitUntilIdle(int timeoutMs) const
{
    QElapsedTimer timer;
    timer.start();
    while (!d->indexer.isIdle()) {
        if (timer.elapsed() > timeoutMs)
            return false;
        QThread::msleep(10);
    }
    return true;
}

QueryEvaluator::IdSet MetadataIndex::Private::resolve(const QueryComparison &comparison) const
{
    std::lock_guard lock(readerLock);
    if (!reader)
        reader = IndexStore::open(config.storePath);
    if (!reader)
        return {};
    const bool anyAttribute = comparison.attribute == u"*";
    if (comparison.attribute == u"kMDItemTextContent" || (anyAttribute && comparison.wordBased)) {
        // Word-prefix search over the extracted words; a value without a word matches nothing.
        return reader->matchWords(Folding::fold(comparison.value).toStdString());
    }
    QueryEvaluator::IdSet ids;
    const auto matches = QueryEvaluator::valueMatcher(comparison);
    const QStringList names =
        anyAttribute ? QStringList{QStringLiteral("kMDItemTitle"), QStringLiteral("kMDItemAuthors"),
                                   QStringLiteral("kMDItemKeywords"), QStringLiteral("kMDItemOMUserTags"),
                                   QStringLiteral("kMDItemSubject")}
                     : QStringList{comparison.attribute};
    for (const QString &name : names) {
        for (const auto &[id, value] : reader->attributeValues(name)) {
            if (matches(value))
                ids.insert(id);
        }
    }
    return ids;
}

std::vector<std::string> MetadataIndex::Private::liveScan(const QueryNode &query, const std::string &scope,
                                                          bool descending, std::size_t maxCount) const
{
    QElapsedTimer timer;
    timer.start();
    std::vector<FileRecord> records;
    FileRecord root;
    root.id = 1;
    root.name = scope;
    root.flags = FileRecord::Folder;
    records.push_back(root);
    std::vector<std::pair<std::uint32_t, std::string>> pending{{1, scope}};
    bool capped = false;
    while (!pending.empty() && !capped) {
        const auto [folderId, folderPath] = pending.back();
        pending.pop_back();
        DIR *dir = opendir(folderPath.c_str());
        if (!dir)
            continue;
        while (dirent *entry = readdir(dir)) {
            const std::string name = entry->d_name;
            if (name == "." || name == "..")
                continue;
            if (records.size() >= std::size_t(config.liveScanMaxEntries) ||
                timer.elapsed() > config.liveScanMaxMs) {
                capped = true;
                break;
            }
            struct stat st
            {};
            if (fstatat(dirfd(dir), name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0)
                continue;
            FileRecord record;
            record.id = std::uint32_t(records.size() + 1);
            record.parent = folderId;
            record.name = name;
            record.mtimeNs = std::int64_t(st.st_mtim.tv_sec) * 1000000000 + st.st_mtim.tv_nsec;
            const bool folder = S_ISDIR(st.st_mode);
            record.size = folder ? 0 : st.st_size;
            record.flags = (folder ? FileRecord::Folder : 0) | (name[0] == '.' ? FileRecord::System : 0);
            record.type = ContentTypes::instance().codeForFileName(name, folder);
            records.push_back(record);
            if (folder && name[0] != '.')
                pending.emplace_back(record.id, folderPath + (folderPath.back() == '/' ? "" : "/") + name);
        }
        closedir(dir);
    }
    if (capped)
        qCInfo(lcMetadata).noquote() << QStringLiteral("live scan of %1 stopped after %2 entries and %3 ms")
                                            .arg(QString::fromStdString(scope))
                                            .arg(records.size())
                                            .arg(timer.elapsed());
    NameTable table;
    table.replaceAll(std::move(records));
    return QueryEvaluator::run(table, query, {1}, descending, maxCount, {});
}

MetadataQueryResult MetadataIndex::query(const QString &text, const QString &scope,
                                         const QString &sortAttribute, bool descending, int maxCount) const
{
    MetadataQueryResult result;
    auto parsed = parseQuery(text);
    if (auto *error = std::get_if<QueryError>(&parsed)) {
        result.error = QStringLiteral("malformed query at %1: %2").arg(error->position).arg(error->message);
        qCInfo(lcMetadata).noquote() << QStringLiteral("query failed: %1").arg(result.error);
        return result;
    }
    if (!sortAttribute.isEmpty() && sortAttribute != u"kMDItemContentModificationDate" &&
        sortAttribute != u"kMDItemFSContentChangeDate") {
        result.error = QStringLiteral("cannot sort by %1").arg(sortAttribute);
        return result;
    }
    const QueryNode &query = std::get<QueryNode>(parsed);
    const std::size_t max = maxCount < 0 ? 0 : std::size_t(maxCount);
    const QString cleanScope = scope.isEmpty() ? QString() : QDir::cleanPath(scope);
    std::vector<std::string> paths;
    const auto resolver = [this](const QueryComparison &comparison) { return d->resolve(comparison); };
    if (cleanScope.isEmpty() || cleanScope == u"/") {
        paths = QueryEvaluator::run(d->table, query, {}, descending, max, resolver);
    } else {
        const std::string scopePath = QFile::encodeName(cleanScope).toStdString();
        bool whole = false;
        const std::vector<std::uint32_t> ids = QueryEvaluator::scopeIds(d->table, scopePath, whole);
        if (!ids.empty())
            paths = QueryEvaluator::run(d->table, query, whole ? std::vector<std::uint32_t>{} : ids,
                                        descending, max, resolver);
        else if (QFileInfo(cleanScope).isDir())
            paths = d->liveScan(query, scopePath, descending, max);
    }
    result.ok = true;
    result.paths.reserve(qsizetype(paths.size()));
    for (const std::string &path : paths)
        result.paths.append(QFile::decodeName(path.c_str()));
    return result;
}

std::optional<QVariantMap> MetadataIndex::item(const QString &path) const
{
    QVariantMap attributes;
    std::uint32_t id = 0;
    {
        const NameTable::Reader reader = d->table.read();
        const std::optional<std::uint32_t> found =
            reader.idForPath(QFile::encodeName(QDir::cleanPath(path)).toStdString());
        if (!found)
            return std::nullopt;
        const std::optional<RecordView> record = reader.byId(*found);
        id = record->id;
        const QString name =
            QFile::decodeName(QByteArray(record->name.data(), qsizetype(record->name.size())));
        attributes.insert(QStringLiteral("kMDItemFSName"), name);
        attributes.insert(QStringLiteral("kMDItemDisplayName"), name);
        attributes.insert(QStringLiteral("kMDItemPath"), QFile::decodeName(reader.path(*record).c_str()));
        attributes.insert(QStringLiteral("kMDItemContentType"),
                          ContentTypes::instance().identifier(record->type));
        attributes.insert(QStringLiteral("kMDItemContentTypeTree"),
                          ContentTypes::instance().tree(record->type));
        attributes.insert(QStringLiteral("kMDItemContentModificationDate"), double(record->mtimeNs) / 1e9);
        if (!(record->flags & FileRecord::Folder))
            attributes.insert(QStringLiteral("kMDItemFSSize"), qint64(record->size));
    }
    static const QStringList listAttributes = {QStringLiteral("kMDItemAuthors"),
                                               QStringLiteral("kMDItemKeywords"),
                                               QStringLiteral("kMDItemOMUserTags")};
    std::lock_guard lock(d->readerLock);
    if (!d->reader)
        d->reader = IndexStore::open(d->config.storePath);
    if (d->reader) {
        for (const auto &[name, value] : d->reader->attributes(id)) {
            if (listAttributes.contains(name)) {
                QStringList list = attributes.value(name).toStringList();
                list.append(value);
                attributes.insert(name, list);
            } else {
                attributes.insert(name, value);
            }
        }
    }
    return attributes;
}

MetadataIndexStatus MetadataIndex::status() const
{
    MetadataIndexStatus status;
    status.roots = d->config.roots;
    status.memoryBytes = qint64(d->table.memoryBytes());
    status.nameBytes = qint64(d->table.nameBytes());
    status.crawling = d->indexer.isCrawling();
    status.crawlPercent = d->indexer.crawlPercent();
    for (const char *suffix : {"", "-wal"})
        status.storeBytes += QFileInfo(d->config.storePath + QLatin1String(suffix)).size();
    std::lock_guard lock(d->readerLock);
    if (!d->reader)
        d->reader = IndexStore::open(d->config.storePath);
    if (d->reader) {
        status.files = qint64(d->reader->fileCount(false));
        status.folders = qint64(d->reader->fileCount(true));
        status.textDocuments = qint64(d->reader->extractedCount(true));
        status.lastChange = d->reader->meta(QStringLiteral("last_change")).toLongLong();
        const QJsonObject work =
            QJsonDocument::fromJson(d->reader->meta(QStringLiteral("progress")).toUtf8()).object();
        status.foldersRead = work.value(QStringLiteral("folders")).toInteger();
        status.filesRead = work.value(QStringLiteral("files")).toInteger();
        status.foldersWaiting = work.value(QStringLiteral("folders_waiting")).toInteger();
        status.contentsRead = work.value(QStringLiteral("contents")).toInteger();
        status.contentsWaiting = work.value(QStringLiteral("contents_waiting")).toInteger();
        status.secondsLeft = work.value(QStringLiteral("seconds_left")).toInteger(-1);
        status.crawling = status.crawling || work.value(QStringLiteral("crawling")).toBool();
        const QString progress = d->reader->meta(QStringLiteral("crawl_progress"));
        if (!status.crawling && !progress.isEmpty() && progress != u"100") {
            status.crawling = true; // another process is crawling
            status.crawlPercent = progress.toInt();
        }
    }
    return status;
}
