#include "engine/vd_Searcher.h"
#include "handlers/vd_FileCompareCache.h"

std::shared_ptr<vd_FileCompareCache> vd_Searcher::getCompareCache(const QString &storageRoot)
{
    return vd_FileCompareCache::getCompareCache(storageRoot);
}

void vd_Searcher::refreshMatchedFilesCache(bool force, const QDateTime &now)
{
    vd_FileCompareCache::refreshMatchedFilesCache(force, now);
}
