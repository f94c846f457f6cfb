#pragma once

#include "metadata/NameTable.h"

#include <QString>

#include <memory>
#include <optional>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>
#include <vector>

struct sqlite3;
struct sqlite3_stmt;

// The metadata store: one SQLite file in WAL mode holding the files, their extracted attributes, the crawl
// state of each folder and a contentless FTS5 table over extracted words. A store with another schema
// version or one SQLite cannot read is deleted and made afresh, with a log line. Each object is one
// connection: use it from one thread at a time.
class IndexStore
{
public:
    static constexpr int kSchemaVersion = 1;

    ~IndexStore();
    IndexStore(const IndexStore &) = delete;
    IndexStore &operator=(const IndexStore &) = delete;

    // Opens (creating or rebuilding as needed) the store at `path`. Null only when the folder cannot be
    // written at all.
    static std::unique_ptr<IndexStore> open(const QString &path);

    bool begin();
    bool commit();

    // Files. A new record's id is chosen by the store and returned.
    std::uint32_t insertFile(const FileRecord &record);
    void updateFile(const FileRecord &record);
    // Removes the records and everything stored about them.
    void deleteFiles(const std::vector<std::uint32_t> &ids);
    std::vector<FileRecord> loadFiles();
    std::vector<FileRecord> children(std::uint32_t folder);
    // Every id below `folder` (not the folder itself).
    std::vector<std::uint32_t> descendants(std::uint32_t folder);
    std::size_t fileCount(bool folders);

    // Crawl state: the folder's modification time when its entries were last read.
    void setFolderScanned(std::uint32_t folder, std::int64_t mtimeNs);
    std::unordered_map<std::uint32_t, std::int64_t> folderScanTimes();

    // Extraction. A file is pending when its type is in `codes` and it has no result for its current
    // modification time and size (a failure counts as a result, so a bad file is not retried until it
    // changes). Pending ids above `after`, ascending: a caller walking forward reads every row once per pass.
    std::vector<std::uint32_t> pendingExtraction(const std::vector<ContentTypes::Code> &codes,
                                                 std::uint32_t after, std::size_t limit);
    // How many files `pendingExtraction` would give from the start. Cost: one pass over the files.
    std::size_t pendingExtractionCount(const std::vector<ContentTypes::Code> &codes);
    void storeExtraction(std::uint32_t id, std::int64_t mtimeNs, std::int64_t size, bool failed,
                         const std::vector<std::pair<QString, QString>> &attributes, const QString &words);
    std::size_t extractedCount(bool withText);
    std::vector<std::pair<QString, QString>> attributes(std::uint32_t id);
    // (id, value) of every stored value of one attribute.
    std::vector<std::pair<std::uint32_t, QString>> attributeValues(const QString &name);
    // Files whose extracted words match every word of `folded` (the last one as a prefix).
    std::unordered_set<std::uint32_t> matchWords(const std::string &folded);

    void setMeta(const QString &key, const QString &value);
    QString meta(const QString &key);

private:
    explicit IndexStore(sqlite3 *db);
    static sqlite3 *openConnection(const QString &path);
    bool createSchema();
    sqlite3_stmt *prepare(const char *sql);
    bool exec(const char *sql);
    int storeType(ContentTypes::Code code);
    std::string storedTypeList(const std::vector<ContentTypes::Code> &codes); // a JSON array of stored types
    ContentTypes::Code memoryType(int stored);

    sqlite3 *m_db = nullptr;
    std::unordered_map<const char *, sqlite3_stmt *> m_statements;
    std::unordered_map<ContentTypes::Code, int> m_toStored;
    std::unordered_map<int, ContentTypes::Code> m_fromStored;
};
