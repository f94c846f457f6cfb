#pragma once

#include <QDateTime>
#include <QString>
#include <QStringList>

#include <memory>
#include <mutex>
#include <optional>
#include <unordered_map>

// Which file of the computer already has an identical copy in a StorageRoot's uploads folder. One cache per
// StorageRoot indexes everything below its uploads folder by name and size; a lookup then compares contents
// only with those candidates. Rebuilds run in the background and replace the whole index at once, so a
// reader never sees half of one.
class vd_FileCompareCache : public std::enable_shared_from_this<vd_FileCompareCache>
{
public:
    // The cache of a StorageRoot, made empty on first use. The path is used exactly as given.
    static std::shared_ptr<vd_FileCompareCache> getCompareCache(const QString &storageRoot);

    // Points every StorageRoot's cache at its uploads folder and starts rebuilding them all in the
    // background; at most once a minute unless forced. Returns at once: until a rebuild ends, lookups
    // answer from the index before it.
    static void refreshMatchedFilesCache(bool force, const QDateTime &now = QDateTime::currentDateTimeUtc());

    // An indexed item with the same name, size and contents as the given one, or none.
    std::optional<QString> matchingPath(const QString &path);

    // "<name>__+_folder" for a folder, "<name>__+_<size>" for anything else.
    static QString keyFromURL(const QString &path);

private:
    // Replaces the indexed folders and starts a rebuild (every call rebuilds).
    void setCachedFolders(const QStringList &folders);
    // Starts a rebuild on the global thread pool.
    void buildCache();
    using Index = std::unordered_map<QString, QStringList>;
    static void addValuesFrom(const QString &folder, Index &index);
    void buildCacheThread(const QStringList &folders);

    std::mutex m_foldersLock; // taken before m_resultsLock when both are held
    QStringList m_folders;    // guarded by m_foldersLock
    std::mutex m_resultsLock;
    Index m_results; // guarded by m_resultsLock
};
