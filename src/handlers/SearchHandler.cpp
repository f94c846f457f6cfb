#include "handlers/SearchHandler.h"

#include "handlers/ItemRecords.h"
#include "handlers/Listings.h"
#include "handlers/SpotlightSearch.h"
#include "handlers/vd_FileCompareCache.h"
#include "utils/vd_FileUtils.h"
#include "utils/vd_SimpleUtils.h"

#include <QDateTime>

#include <mutex>

void SearchHandler::handleSearchRequest(QJsonObject &request)
{
    const QString searchDir = request.value(QStringLiteral("search_dir")).toString();
    const QString fileType = request.value(QStringLiteral("file_type")).toString();
    const QString nameSearch = request.value(QStringLiteral("name_search")).toString();
    const QString searchString = request.value(QStringLiteral("search_string")).toString();

    QJsonArray page;
    if (searchDir == u"root_folders") {
        page = ItemRecords::pageOf(Listings::doComputerList(), request, request);
    } else if (searchString.isEmpty() && fileType.isEmpty() && nameSearch.isEmpty()) {
        QJsonArray records = Listings::doListing(searchDir);
        if (!searchDir.isEmpty())
            ItemRecords::finderSortWithLocale(records);
        page = ItemRecords::pageOf(records, request, request);
    } else {
        // Up to 600 hits, of which at most 40 are sent: only those become records.
        const QStringList paths =
            SpotlightSearch::spotlightPaths(searchDir, fileType, nameSearch, searchString);
        const auto [first, length] = ItemRecords::pageRange(paths.size(), request, request);
        for (qsizetype i = first; i < first + length; ++i)
            page.append(ItemRecords::fileInfoDict(paths[i]));
    }
    vd_FileCompareCache::refreshMatchedFilesCache(false);
    ItemRecords::polishResults(page, request);
    const QString storageFolder = request.value(QStringLiteral("vandrel_folder")).toString();
    request.insert(QStringLiteral("items"), page);
    // A folder's list comes back shared while the folder is unchanged; its JSON form, which in a folder of
    // thousands costs more than the search, is kept beside it.
    static std::mutex subFoldersLock;
    static QStringList lastSubFolders;    // guarded by subFoldersLock
    static QJsonArray lastSubFoldersJson; // guarded by subFoldersLock
    const QStringList subFolders = ItemRecords::getSubFolders(searchDir);
    QJsonArray subFoldersJson;
    {
        const std::lock_guard guard(subFoldersLock);
        if (!subFolders.isSharedWith(lastSubFolders)) {
            lastSubFolders = subFolders;
            lastSubFoldersJson = QJsonArray::fromStringList(subFolders);
        }
        subFoldersJson = lastSubFoldersJson;
    }
    request.insert(QStringLiteral("sub_folders"), subFoldersJson);
    request.insert(QStringLiteral("computer_name"), vd_SimpleUtils::computerName());
    request.insert(QStringLiteral("last_updated"), vd_FileUtils::JSONDate(QDateTime::currentDateTimeUtc()));
    // The WebApp knows computers by this wire value, whatever system they run.
    request.insert(QStringLiteral("platform"), QStringLiteral("osx"));
    request.insert(QStringLiteral("dropbox_path"), vd_FileUtils::dropBoxFolderGET(storageFolder));
    request.insert(QStringLiteral("uploads_folder"),
                   vd_FileUtils::getDefaultDropBoxUploadsFolder(storageFolder));
    request.insert(QStringLiteral("app_version"), vd_FileUtils::getAppVersionString());
}
