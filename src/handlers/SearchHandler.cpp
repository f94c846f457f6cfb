#include "handlers/SearchHandler.h"

#include "handlers/HandlersLog.h"
#include "handlers/ItemRecords.h"
#include "handlers/Listings.h"
#include "handlers/SearchIndex.h"
#include "metadata/MetadataIndex.h"
#include "support/Logging.h"
#include "utils/vd_FileUtils.h"
#include "utils/vd_SimpleUtils.h"

#include <QDateTime>
#include <QDir>

#include <mutex>

namespace {

constexpr int kMaxResults = 600;

QString joined(const QString &query, const QString &clause)
{
    return query.isEmpty() ? clause : query + QStringLiteral(" && ") + clause;
}

} // namespace

QString SearchHandler::trimWhiteStuff(const QString &text)
{
    return text.trimmed();
}

QStringList SearchHandler::readSpaceAndQuoteDelimitedStringIntoArray(const QString &typed)
{
    QString spaced = typed;
    spaced.replace(u'"', QStringLiteral(" \" "));
    const QStringList pieces = spaced.split(u' ');
    QStringList terms;
    for (qsizetype i = 0; i < pieces.size(); ++i) {
        const QString &piece = pieces[i];
        if (piece.isEmpty())
            continue;
        if (!piece.contains(u'"')) {
            terms << trimWhiteStuff(piece);
            continue;
        }
        // A phrase: everything up to and including the piece with the closing quote. The piece after the
        // one that ended it is dropped, as text glued onto a closing quote has always been.
        QString phrase = piece;
        qsizetype next = i + 1;
        for (; next < pieces.size(); ++next) {
            phrase += pieces[next] + u' ';
            if (pieces[next].contains(u'"'))
                break;
        }
        i = next + 1;
        phrase.remove(u'"');
        terms << trimWhiteStuff(phrase);
    }
    QStringList joinedTerms;
    for (qsizetype i = 0; i < terms.size(); ++i) {
        if (terms[i].endsWith(u':') && i + 1 < terms.size()) {
            joinedTerms << terms[i] + terms[i + 1];
            ++i;
        } else {
            joinedTerms << terms[i];
        }
    }
    return joinedTerms;
}

QString SearchHandler::addFileNameSearch(const QString &query, const QString &typed)
{
    QString result = query;
    for (const QString &term : readSpaceAndQuoteDelimitedStringIntoArray(typed)) {
        result = joined(result, term.size() == 1
                                    ? QStringLiteral("( kMDItemDisplayName == \"%1*\"cd )").arg(term)
                                    : QStringLiteral("( kMDItemDisplayName == \"*%1*\"cd )").arg(term));
    }
    return result;
}

QString SearchHandler::addFileTypeSearch(const QString &query, const QString &fileType)
{
    if (fileType.isEmpty())
        return query;
    if (fileType.contains(u"kMDItemContent"))
        return joined(query, QStringLiteral("( %1 )").arg(fileType));
    return joined(query, QStringLiteral("( kMDItemContentTypeTree == \"%1\" )").arg(fileType));
}

QString SearchHandler::addAllSearch(const QString &query, const QString &typed)
{
    QString result = query;
    for (const QString &term : readSpaceAndQuoteDelimitedStringIntoArray(typed)) {
        result =
            joined(result,
                   term.size() == 1
                       ? QStringLiteral("( * == \"%1\"cdw )").arg(term)
                       : QStringLiteral("( * == \"%1*\"cdw || kMDItemTextContent == \"%1*\"cdw )").arg(term));
    }
    return result;
}

QString SearchHandler::addSkipSystemFilesSearch(const QString &query)
{
    return joined(query, QStringLiteral("(kMDItemSupportFileType != MDSystemFile)"));
}

QString SearchHandler::currentQueryString(const QString &fileType, const QString &nameSearch,
                                          const QString &searchString)
{
    QString query = addFileNameSearch(QString(), nameSearch);
    query = addFileTypeSearch(query, fileType);
    query = addAllSearch(query, searchString);
    return addSkipSystemFilesSearch(query);
}

bool SearchHandler::excludeSpotlightPath(const QString &path)
{
    return path.contains(u"/Library/Caches/");
}

QStringList SearchHandler::spotlightPaths(const QString &scope, const QString &fileType,
                                          const QString &nameSearch, const QString &searchString)
{
    QString folder = scope.isEmpty() ? QStringLiteral("/") : scope;
    if (folder.startsWith(u'~'))
        folder = QDir::homePath() + folder.mid(1);
    const QString query = currentQueryString(fileType, nameSearch, searchString);
    const MetadataIndex *index = SearchIndex::current();
    if (query.isEmpty() || !index)
        return {};
    MetadataQueryResult result =
        index->query(query, folder, QStringLiteral("kMDItemContentModificationDate"), true, kMaxResults);
    if (!result.ok) {
        qCInfo(lcHandlers).noquote()
            << QStringLiteral("search failed: %1").arg(Logging::shownInLog(result.error));
        return {};
    }
    result.paths.removeIf([](const QString &path) { return excludeSpotlightPath(path); });
    return result.paths;
}

QJsonArray SearchHandler::doSpotlightSearch(const QString &scope, const QString &fileType,
                                            const QString &nameSearch, const QString &searchString)
{
    QJsonArray records;
    for (const QString &path : spotlightPaths(scope, fileType, nameSearch, searchString))
        records.append(ItemRecords::fileInfoDict(path));
    return records;
}

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
        const QStringList paths = spotlightPaths(searchDir, fileType, nameSearch, searchString);
        const auto [first, length] = ItemRecords::pageRange(paths.size(), request, request);
        for (qsizetype i = first; i < first + length; ++i)
            page.append(ItemRecords::fileInfoDict(paths[i]));
    }
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
