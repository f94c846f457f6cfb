#include "metadata/IndexStore.h"

#include "metadata/Folding.h"
#include "metadata/MetadataLog.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <fcntl.h>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

const char *const kSchema = R"(
CREATE TABLE meta(key TEXT PRIMARY KEY, value TEXT);
CREATE TABLE types(code INTEGER PRIMARY KEY, mime TEXT UNIQUE NOT NULL);
CREATE TABLE files(id INTEGER PRIMARY KEY, parent INTEGER NOT NULL, name BLOB NOT NULL, size INTEGER NOT NULL,
                   mtime INTEGER NOT NULL, type INTEGER NOT NULL, flags INTEGER NOT NULL);
CREATE INDEX files_parent ON files(parent);
CREATE TABLE crawl_state(folder INTEGER PRIMARY KEY, mtime INTEGER NOT NULL);
CREATE TABLE attributes(file INTEGER NOT NULL, name TEXT NOT NULL, value TEXT NOT NULL);
CREATE INDEX attributes_file ON attributes(file);
CREATE INDEX attributes_name ON attributes(name);
CREATE TABLE extraction(doc INTEGER PRIMARY KEY AUTOINCREMENT, file INTEGER UNIQUE NOT NULL,
                        mtime INTEGER NOT NULL, size INTEGER NOT NULL, failed INTEGER NOT NULL,
                        has_text INTEGER NOT NULL);
CREATE VIRTUAL TABLE words USING fts5(body, content='', tokenize='unicode61 remove_diacritics 2', prefix='2 3');
)";

std::string columnText(sqlite3_stmt *statement, int column)
{
    const auto *data = static_cast<const char *>(sqlite3_column_blob(statement, column));
    return data ? std::string(data, std::size_t(sqlite3_column_bytes(statement, column))) : std::string();
}

QString columnQString(sqlite3_stmt *statement, int column)
{
    const auto *data = reinterpret_cast<const char *>(sqlite3_column_text(statement, column));
    return data ? QString::fromUtf8(data, sqlite3_column_bytes(statement, column)) : QString();
}

void bindText(sqlite3_stmt *statement, int index, const QString &text)
{
    const QByteArray utf8 = text.toUtf8();
    sqlite3_bind_text(statement, index, utf8.constData(), int(utf8.size()), SQLITE_TRANSIENT);
}

// Resets a cached statement when the scope ends, whatever path the caller took.
struct Use
{
    sqlite3_stmt *statement;
    ~Use()
    {
        if (statement) {
            sqlite3_reset(statement);
            sqlite3_clear_bindings(statement);
        }
    }
    operator sqlite3_stmt *() const { return statement; }
};

} // namespace

IndexStore::IndexStore(sqlite3 *db)
    : m_db(db)
{}

IndexStore::~IndexStore()
{
    for (auto &[sql, statement] : m_statements)
        sqlite3_finalize(statement);
    sqlite3_close(m_db);
}

sqlite3 *IndexStore::openConnection(const QString &path)
{
    sqlite3 *db = nullptr;
    if (sqlite3_open_v2(QFile::encodeName(path).constData(), &db,
                        SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX,
                        nullptr) != SQLITE_OK) {
        sqlite3_close(db);
        return nullptr;
    }
    sqlite3_busy_timeout(db, 5000);
    return db;
}

namespace {

// The index holds the names and words of the user's files: only the user may read it. The file is made
// before SQLite opens it, as SQLite gives new files the umask's mode and its journals the database's.
// Only a missing file is opened here: closing any descriptor of an open store drops this process's SQLite
// locks on it, and another process closing its connection would then take the store for unused and
// delete its write-ahead log under our feet.
void keepPrivate(const QString &path)
{
    ::chmod(QFile::encodeName(QFileInfo(path).absolutePath()).constData(), 0700);
    const QByteArray file = QFile::encodeName(path);
    if (const int fd = ::open(file.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
        fd >= 0)
        ::close(fd);
    for (const char *suffix : {"", "-wal", "-shm"})
        ::chmod((file + suffix).constData(), 0600);
}

// Held while a connection checks, creates or rebuilds the store. The agent and `vandrel status` may open a
// new store at the same moment; without it one sees the other's half-made schema (or its lock) as
// damage and deletes the file the other is writing.
class OpeningLock
{
public:
    explicit OpeningLock(const QString &storePath)
        : m_fd(::open(QFile::encodeName(storePath + QStringLiteral(".lock")).constData(),
                      O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600))
    {
        if (m_fd >= 0)
            ::flock(m_fd, LOCK_EX);
    }
    ~OpeningLock()
    {
        if (m_fd >= 0)
            ::close(m_fd);
    }
    OpeningLock(const OpeningLock &) = delete;
    OpeningLock &operator=(const OpeningLock &) = delete;

private:
    int m_fd;
};

} // namespace

std::unique_ptr<IndexStore> IndexStore::open(const QString &path)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    const OpeningLock opening(path);
    for (int attempt = 0; attempt < 2; ++attempt) {
        keepPrivate(path);
        sqlite3 *db = openConnection(path);
        if (!db)
            return nullptr;
        std::unique_ptr<IndexStore> store(new IndexStore(db));
        QString problem;
        if (!store->exec("PRAGMA journal_mode=WAL") || !store->exec("PRAGMA synchronous=NORMAL") ||
            !store->exec("PRAGMA cache_size=-32768")) {
            problem = QStringLiteral("cannot be read");
        } else {
            sqlite3_stmt *version = store->prepare("PRAGMA user_version");
            int found = -1;
            if (version && sqlite3_step(version) == SQLITE_ROW)
                found = sqlite3_column_int(version, 0);
            if (version)
                sqlite3_reset(version);
            if (found == 0) {
                if (store->createSchema())
                    return store;
                problem = QStringLiteral("cannot be created");
            } else if (found != kSchemaVersion) {
                problem = QStringLiteral("has schema version %1, not %2").arg(found).arg(kSchemaVersion);
            } else if (!store->prepare(
                           "SELECT id, parent, name, size, mtime, type, flags FROM files LIMIT 1") ||
                       !store->prepare("SELECT rowid FROM words LIMIT 1")) {
                problem = QStringLiteral("is damaged");
            } else {
                return store;
            }
        }
        store.reset();
        qCWarning(lcMetadata).noquote()
            << QStringLiteral("metadata store %1 %2; rebuilding it").arg(path, problem);
        for (const char *suffix : {"", "-wal", "-shm"})
            QFile::remove(path + QLatin1String(suffix));
    }
    return nullptr;
}

bool IndexStore::exec(const char *sql)
{
    char *error = nullptr;
    if (sqlite3_exec(m_db, sql, nullptr, nullptr, &error) != SQLITE_OK) {
        qCWarning(lcMetadata).noquote() << "metadata store:" << (error ? error : "unknown error");
        sqlite3_free(error);
        return false;
    }
    return true;
}

bool IndexStore::createSchema()
{
    if (!begin())
        return false;
    const QByteArray version = "PRAGMA user_version=" + QByteArray::number(kSchemaVersion);
    if (!exec(kSchema) || !exec(version.constData())) {
        exec("ROLLBACK");
        return false;
    }
    return commit();
}

sqlite3_stmt *IndexStore::prepare(const char *sql)
{
    if (auto it = m_statements.find(sql); it != m_statements.end())
        return it->second;
    sqlite3_stmt *statement = nullptr;
    if (sqlite3_prepare_v3(m_db, sql, -1, SQLITE_PREPARE_PERSISTENT, &statement, nullptr) != SQLITE_OK) {
        sqlite3_finalize(statement);
        return nullptr;
    }
    m_statements.emplace(sql, statement);
    return statement;
}

bool IndexStore::begin()
{
    return exec("BEGIN IMMEDIATE");
}

bool IndexStore::commit()
{
    return exec("COMMIT");
}

int IndexStore::storeType(ContentTypes::Code code)
{
    if (auto it = m_toStored.find(code); it != m_toStored.end())
        return it->second;
    const QString mime = ContentTypes::instance().mimeName(code);
    int stored = -1;
    {
        Use find{prepare("SELECT code FROM types WHERE mime = ?")};
        bindText(find, 1, mime);
        if (sqlite3_step(find) == SQLITE_ROW)
            stored = sqlite3_column_int(find, 0);
    }
    if (stored < 0) {
        Use insert{prepare("INSERT INTO types(mime) VALUES(?)")};
        bindText(insert, 1, mime);
        sqlite3_step(insert);
        stored = int(sqlite3_last_insert_rowid(m_db));
    }
    m_toStored.emplace(code, stored);
    m_fromStored.emplace(stored, code);
    return stored;
}

ContentTypes::Code IndexStore::memoryType(int stored)
{
    if (auto it = m_fromStored.find(stored); it != m_fromStored.end())
        return it->second;
    Use find{prepare("SELECT mime FROM types WHERE code = ?")};
    sqlite3_bind_int(find, 1, stored);
    const QString mime = sqlite3_step(find) == SQLITE_ROW ? columnQString(find, 0)
                                                          : QStringLiteral("application/octet-stream");
    const ContentTypes::Code code = ContentTypes::instance().codeForMime(mime);
    m_fromStored.emplace(stored, code);
    m_toStored.emplace(code, stored);
    return code;
}

std::uint32_t IndexStore::insertFile(const FileRecord &record)
{
    const int type = storeType(record.type);
    Use insert{prepare("INSERT INTO files(parent, name, size, mtime, type, flags) VALUES(?, ?, ?, ?, ?, ?)")};
    sqlite3_bind_int64(insert, 1, record.parent);
    sqlite3_bind_blob(insert, 2, record.name.data(), int(record.name.size()), SQLITE_STATIC);
    sqlite3_bind_int64(insert, 3, record.size);
    sqlite3_bind_int64(insert, 4, record.mtimeNs);
    sqlite3_bind_int(insert, 5, type);
    sqlite3_bind_int(insert, 6, record.flags);
    if (sqlite3_step(insert) != SQLITE_DONE)
        return 0;
    return std::uint32_t(sqlite3_last_insert_rowid(m_db));
}

void IndexStore::updateFile(const FileRecord &record)
{
    const int type = storeType(record.type);
    Use update{prepare(
        "UPDATE files SET parent = ?, name = ?, size = ?, mtime = ?, type = ?, flags = ? WHERE id = ?")};
    sqlite3_bind_int64(update, 1, record.parent);
    sqlite3_bind_blob(update, 2, record.name.data(), int(record.name.size()), SQLITE_STATIC);
    sqlite3_bind_int64(update, 3, record.size);
    sqlite3_bind_int64(update, 4, record.mtimeNs);
    sqlite3_bind_int(update, 5, type);
    sqlite3_bind_int(update, 6, record.flags);
    sqlite3_bind_int64(update, 7, record.id);
    sqlite3_step(update);
}

void IndexStore::deleteFiles(const std::vector<std::uint32_t> &ids)
{
    for (const char *sql :
         {"DELETE FROM files WHERE id = ?", "DELETE FROM crawl_state WHERE folder = ?",
          "DELETE FROM attributes WHERE file = ?", "DELETE FROM extraction WHERE file = ?"}) {
        sqlite3_stmt *statement = prepare(sql);
        for (std::uint32_t id : ids) {
            sqlite3_bind_int64(statement, 1, id);
            sqlite3_step(statement);
            sqlite3_reset(statement);
        }
    }
}

namespace {
FileRecord readRecord(sqlite3_stmt *statement)
{
    FileRecord record;
    record.id = std::uint32_t(sqlite3_column_int64(statement, 0));
    record.parent = std::uint32_t(sqlite3_column_int64(statement, 1));
    record.name = columnText(statement, 2);
    record.size = sqlite3_column_int64(statement, 3);
    record.mtimeNs = sqlite3_column_int64(statement, 4);
    record.flags = std::uint8_t(sqlite3_column_int(statement, 6));
    return record;
}
} // namespace

std::vector<FileRecord> IndexStore::loadFiles()
{
    std::vector<FileRecord> records;
    Use all{prepare("SELECT id, parent, name, size, mtime, type, flags FROM files")};
    while (sqlite3_step(all) == SQLITE_ROW) {
        records.push_back(readRecord(all));
        records.back().type = memoryType(sqlite3_column_int(all, 5));
    }
    return records;
}

std::vector<FileRecord> IndexStore::children(std::uint32_t folder)
{
    std::vector<FileRecord> records;
    Use query{prepare("SELECT id, parent, name, size, mtime, type, flags FROM files WHERE parent = ?")};
    sqlite3_bind_int64(query, 1, folder);
    while (sqlite3_step(query) == SQLITE_ROW) {
        records.push_back(readRecord(query));
        records.back().type = memoryType(sqlite3_column_int(query, 5));
    }
    return records;
}

std::vector<std::uint32_t> IndexStore::descendants(std::uint32_t folder)
{
    std::vector<std::uint32_t> result;
    std::vector<std::uint32_t> pending{folder};
    sqlite3_stmt *query = prepare("SELECT id, flags FROM files WHERE parent = ?");
    while (!pending.empty()) {
        const std::uint32_t current = pending.back();
        pending.pop_back();
        sqlite3_bind_int64(query, 1, current);
        while (sqlite3_step(query) == SQLITE_ROW) {
            const auto id = std::uint32_t(sqlite3_column_int64(query, 0));
            result.push_back(id);
            if (sqlite3_column_int(query, 1) & FileRecord::Folder)
                pending.push_back(id);
        }
        sqlite3_reset(query);
    }
    return result;
}

std::size_t IndexStore::fileCount(bool folders)
{
    Use count{prepare(folders ? "SELECT count(*) FROM files WHERE flags & 1"
                              : "SELECT count(*) FROM files WHERE NOT flags & 1")};
    return sqlite3_step(count) == SQLITE_ROW ? std::size_t(sqlite3_column_int64(count, 0)) : 0;
}

void IndexStore::setFolderScanned(std::uint32_t folder, std::int64_t mtimeNs)
{
    Use upsert{prepare("INSERT OR REPLACE INTO crawl_state(folder, mtime) VALUES(?, ?)")};
    sqlite3_bind_int64(upsert, 1, folder);
    sqlite3_bind_int64(upsert, 2, mtimeNs);
    sqlite3_step(upsert);
}

std::unordered_map<std::uint32_t, std::int64_t> IndexStore::folderScanTimes()
{
    std::unordered_map<std::uint32_t, std::int64_t> times;
    Use all{prepare("SELECT folder, mtime FROM crawl_state")};
    while (sqlite3_step(all) == SQLITE_ROW)
        times.emplace(std::uint32_t(sqlite3_column_int64(all, 0)), sqlite3_column_int64(all, 1));
    return times;
}

std::string IndexStore::storedTypeList(const std::vector<ContentTypes::Code> &codes)
{
    std::string stored = "[";
    for (ContentTypes::Code code : codes)
        stored += (stored.size() > 1 ? "," : "") + std::to_string(storeType(code));
    return stored + "]";
}

std::size_t IndexStore::pendingExtractionCount(const std::vector<ContentTypes::Code> &codes)
{
    const std::string stored = storedTypeList(codes);
    Use query{prepare("SELECT count(*) FROM files f LEFT JOIN extraction e ON e.file = f.id "
                      "WHERE f.type IN (SELECT value FROM json_each(?)) "
                      "AND (e.file IS NULL OR e.mtime != f.mtime OR e.size != f.size)")};
    sqlite3_bind_text(query, 1, stored.data(), int(stored.size()), SQLITE_STATIC);
    return sqlite3_step(query) == SQLITE_ROW ? std::size_t(sqlite3_column_int64(query, 0)) : 0;
}

std::vector<std::uint32_t> IndexStore::pendingExtraction(const std::vector<ContentTypes::Code> &codes,
                                                         std::uint32_t after, std::size_t limit)
{
    std::vector<std::uint32_t> ids;
    const std::string stored = storedTypeList(codes);
    Use query{
        prepare("SELECT f.id FROM files f LEFT JOIN extraction e ON e.file = f.id "
                "WHERE f.id > ? AND f.type IN (SELECT value FROM json_each(?)) "
                "AND (e.file IS NULL OR e.mtime != f.mtime OR e.size != f.size) ORDER BY f.id LIMIT ?")};
    sqlite3_bind_int64(query, 1, after);
    sqlite3_bind_text(query, 2, stored.data(), int(stored.size()), SQLITE_STATIC);
    sqlite3_bind_int64(query, 3, sqlite3_int64(limit));
    while (sqlite3_step(query) == SQLITE_ROW)
        ids.push_back(std::uint32_t(sqlite3_column_int64(query, 0)));
    return ids;
}

void IndexStore::storeExtraction(std::uint32_t id, std::int64_t mtimeNs, std::int64_t size, bool failed,
                                 const std::vector<std::pair<QString, QString>> &attributes,
                                 const QString &words)
{
    // A new row gets a new document number, so the words of an older extraction (which a contentless
    // table cannot delete) no longer join to any file.
    for (const char *sql :
         {"DELETE FROM attributes WHERE file = ?", "DELETE FROM extraction WHERE file = ?"}) {
        Use remove{prepare(sql)};
        sqlite3_bind_int64(remove, 1, id);
        sqlite3_step(remove);
    }
    {
        Use insert{
            prepare("INSERT INTO extraction(file, mtime, size, failed, has_text) VALUES(?, ?, ?, ?, ?)")};
        sqlite3_bind_int64(insert, 1, id);
        sqlite3_bind_int64(insert, 2, mtimeNs);
        sqlite3_bind_int64(insert, 3, size);
        sqlite3_bind_int(insert, 4, failed ? 1 : 0);
        sqlite3_bind_int(insert, 5, words.isEmpty() ? 0 : 1);
        sqlite3_step(insert);
    }
    const sqlite3_int64 doc = sqlite3_last_insert_rowid(m_db);
    for (const auto &[name, value] : attributes) {
        Use insert{prepare("INSERT INTO attributes(file, name, value) VALUES(?, ?, ?)")};
        sqlite3_bind_int64(insert, 1, id);
        bindText(insert, 2, name);
        bindText(insert, 3, value);
        sqlite3_step(insert);
    }
    if (!words.isEmpty()) {
        Use insert{prepare("INSERT INTO words(rowid, body) VALUES(?, ?)")};
        sqlite3_bind_int64(insert, 1, doc);
        const QByteArray folded = Folding::fold(words);
        sqlite3_bind_text(insert, 2, folded.constData(), int(folded.size()), SQLITE_STATIC);
        sqlite3_step(insert);
    }
}

std::size_t IndexStore::extractedCount(bool withText)
{
    Use count{prepare(withText ? "SELECT count(*) FROM extraction WHERE has_text"
                               : "SELECT count(*) FROM extraction")};
    return sqlite3_step(count) == SQLITE_ROW ? std::size_t(sqlite3_column_int64(count, 0)) : 0;
}

std::vector<std::pair<QString, QString>> IndexStore::attributes(std::uint32_t id)
{
    std::vector<std::pair<QString, QString>> result;
    Use query{prepare("SELECT name, value FROM attributes WHERE file = ? ORDER BY rowid")};
    sqlite3_bind_int64(query, 1, id);
    while (sqlite3_step(query) == SQLITE_ROW)
        result.emplace_back(columnQString(query, 0), columnQString(query, 1));
    return result;
}

std::vector<std::pair<std::uint32_t, QString>> IndexStore::attributeValues(const QString &name)
{
    std::vector<std::pair<std::uint32_t, QString>> result;
    Use query{prepare("SELECT file, value FROM attributes WHERE name = ?")};
    bindText(query, 1, name);
    while (sqlite3_step(query) == SQLITE_ROW)
        result.emplace_back(std::uint32_t(sqlite3_column_int64(query, 0)), columnQString(query, 1));
    return result;
}

std::unordered_set<std::uint32_t> IndexStore::matchWords(const std::string &folded)
{
    std::unordered_set<std::uint32_t> result;
    const std::vector<std::string_view> words = Folding::words(folded);
    if (words.empty())
        return result;
    // One phrase whose last word is a prefix; the words hold no quote, so the phrase needs no escaping.
    std::string phrase = "\"";
    for (std::size_t i = 0; i < words.size(); ++i)
        phrase.append(i ? " " : "").append(words[i]);
    phrase += "\"*";
    Use query{
        prepare("SELECT e.file FROM words JOIN extraction e ON e.doc = words.rowid WHERE words MATCH ?")};
    sqlite3_bind_text(query, 1, phrase.data(), int(phrase.size()), SQLITE_STATIC);
    while (sqlite3_step(query) == SQLITE_ROW)
        result.insert(std::uint32_t(sqlite3_column_int64(query, 0)));
    return result;
}

void IndexStore::setMeta(const QString &key, const QString &value)
{
    Use upsert{prepare("INSERT OR REPLACE INTO meta(key, value) VALUES(?, ?)")};
    bindText(upsert, 1, key);
    bindText(upsert, 2, value);
    sqlite3_step(upsert);
}

QString IndexStore::meta(const QString &key)
{
    Use query{prepare("SELECT value FROM meta WHERE key = ?")};
    bindText(query, 1, key);
    return sqlite3_step(query) == SQLITE_ROW ? columnQString(query, 0) : QString();
}
