#include "handlers/vd_FileCompareCache.h"

#include "handlers/ItemComparison.h"
#include "utils/vd_FileUtils.h"

#include <QDirIterator>
#include <QFileInfo>
#include <QThreadPool>

#include <atomic>
#include <cmath>
#include <map>

namespace {

constexpr double kRefreshIntervalSeconds = 60.0;

std::mutex s_cachesLock;                                          // guards s_caches
std::map<QString, std::shared_ptr<vd_FileCompareCache>> s_caches; // StorageRoot -> its cache
std::atomic<double> s_lastDone{0.0};                              // seconds since 1970 of the last refresh

} // namespace

std::shared_ptr<vd_FileCompareCache> vd_FileCompareCache::getCompareCache(const QString &storageRoot)
{
    const std::lock_guard guard(s_cachesLock);
    std::shared_ptr<vd_FileCompareCache> &cache = s_caches[storageRoot];
    if (!cache)
        cache = std::make_shared<vd_FileCompareCache>();
    return cache;
}

void vd_FileCompareCache::refreshMatchedFilesCache(bool force, const QDateTime &now)
{
    const double nowSeconds = vd_FileUtils::JSONDate(now);
    if (!force && std::abs(nowSeconds - s_lastDone.load()) <= kRefreshIntervalSeconds)
        return;
    for (const QString &root : vd_FileUtils::storageFoldersDropBoxGDriveEtc()) {
        const QString uploads = vd_FileUtils::getDefaultDropBoxUploadsFolderROOT(root);
        if (!uploads.isEmpty())
            getCompareCache(root)->setCachedFolders({uploads});
    }
    s_lastDone.store(nowSeconds);
}

void vd_FileCompareCache::setCachedFolders(const QStringList &folders)
{
    {
        const std::lock_guard guard(m_foldersLock);
        m_folders = folders;
    }
    buildCache();
}

void vd_FileCompareCache::buildCache()
{
    QStringList folders;
    {
        const std::lock_guard guard(m_foldersLock);
        folders = m_folders;
    }
    QThreadPool::globalInstance()->start(
        [self = shared_from_this(), folders] { self->buildCacheThread(folders); });
}

void vd_FileCompareCache::buildCacheThread(const QStringList &folders)
{
    Index index;
    for (const QString &folder : folders)
        addValuesFrom(folder, index);
    const std::lock_guard foldersGuard(m_foldersLock);
    // A newer rebuild for other folders is on its way: this one is already stale.
    if (m_folders != folders)
        return;
    const std::lock_guard resultsGuard(m_resultsLock);
    m_results.swap(index);
}

void vd_FileCompareCache::addValuesFrom(const QString &folder, Index &index)
{
    if (folder.isEmpty())
        return;
    QDirIterator it(folder, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        index[keyFromURL(path)].append(path);
    }
}

QString vd_FileCompareCache::keyFromURL(const QString &path)
{
    const QFileInfo info(path);
    if (info.isDir() && !info.isSymLink())
        return info.fileName() + QStringLiteral("__+_folder");
    return info.fileName() + QStringLiteral("__+_") + QString::number(info.exists() ? info.size() : 0);
}

std::optional<QString> vd_FileCompareCache::matchingPath(const QString &path)
{
    const QString key = keyFromURL(path);
    QStringList candidates;
    {
        const std::lock_guard guard(m_resultsLock);
        const auto found = m_results.find(key);
        if (found == m_results.end())
            return std::nullopt;
        candidates = found->second;
    }
    for (const QString &candidate : candidates) {
        if (contentsEqual(path, candidate))
            return candidate;
    }
    return std::nullopt;
}
