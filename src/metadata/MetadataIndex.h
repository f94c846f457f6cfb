#pragma once

#include "metadata/MetadataConfig.h"

#include <QString>
#include <QStringList>
#include <QVariantMap>

#include <memory>
#include <optional>

// The outcome of a query: paths in order, or a failure (malformed query, unsupported sort) with a message.
struct MetadataQueryResult
{
    bool ok = false;
    QStringList paths;
    QString error;
};

struct MetadataIndexStatus
{
    QStringList roots;
    qint64 files = 0;
    qint64 folders = 0;
    qint64 textDocuments = 0;
    qint64 storeBytes = 0;
    qint64 memoryBytes = 0; // the name table beyond the names
    qint64 nameBytes = 0;   // the names in the table, raw and folded
    qint64 lastChange = 0;  // seconds since 1970, 0 when never
    bool crawling = false;
    int crawlPercent = 100;
    // The indexing under way (in this process or another): what is read and what waits.
    qint64 foldersRead = 0;
    qint64 filesRead = 0;
    qint64 foldersWaiting = 0;
    qint64 contentsRead = 0;
    qint64 contentsWaiting = 0;
    qint64 secondsLeft = -1; // -1 when unknown
};

// The metadata index: the search engine behind searches, item records and link resolution.
//   query()  the MDQuery stand-in: query text, scope folder, sort attribute, order, max count → paths
//   item()   the MDItem stand-in: one path → its attributes, or no record
// Queries never wait for indexing: they see the index as it is at that moment.
class MetadataIndex
{
public:
    static constexpr int kDefaultMaxCount = 600;

    explicit MetadataIndex(MetadataConfig config);
    ~MetadataIndex();
    MetadataIndex(const MetadataIndex &) = delete;
    MetadataIndex &operator=(const MetadataIndex &) = delete;

    // Starts the indexing thread: load or crawl, catch up, watch, extract.
    void start();
    void stop();
    // Brings the index up to date on the calling thread (load or crawl, catch up, extract) without
    // watching; for the command line. False when the store cannot be opened.
    bool updateNow();
    // Loads what the store holds, without reading the disk. False when the store cannot be opened.
    bool loadStored();
    // Re-reads every folder that changed since it was last read, on the indexing thread; what an event
    // queue overflow does.
    void rescan();
    // Waits until the indexing thread has nothing left to do; false on timeout.
    bool waitUntilIdle(int timeoutMs) const;

    // Runs a query. An empty or "/" scope is the whole index; a scope outside the indexed roots is answered
    // by a live walk bounded in entries and time. `sortAttribute` is kMDItemContentModificationDate or empty.
    // Cost: bounded by the most selective indexed clause when newest first; thread-safe.
    MetadataQueryResult query(const QString &text, const QString &scope = {},
                              const QString &sortAttribute = QStringLiteral("kMDItemContentModificationDate"),
                              bool descending = true, int maxCount = kDefaultMaxCount) const;

    // The attributes of one indexed path (kMDItemFSName, kMDItemDisplayName, kMDItemPath,
    // kMDItemContentType, kMDItemContentTypeTree, kMDItemContentModificationDate (seconds since 1970),
    // kMDItemFSSize, extracted ones; list attributes as QStringList), or nothing when the index has no
    // record.
    std::optional<QVariantMap> item(const QString &path) const;

    MetadataIndexStatus status() const;

private:
    struct Private;
    std::unique_ptr<Private> d;
};
