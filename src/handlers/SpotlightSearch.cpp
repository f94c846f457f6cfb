#include "handlers/SpotlightSearch.h"

#include "handlers/HandlersLog.h"
#include "handlers/ItemRecords.h"
#include "handlers/SearchIndex.h"
#include "metadata/MetadataIndex.h"
#include "support/Logging.h"

#include <QDir>

namespace {

constexpr int kMaxResults = 600;

QString joined(const QString &query, const QString &clause)
{
    return query.isEmpty() ? clause : query + QStringLiteral(" && ") + clause;
}

QString trimWhiteStuff(const QString &text)
{
    return text.trimmed();
}

QStringList readSpaceAndQuoteDelimitedStringIntoArray(const QString &typed)
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

QString addFileNameSearch(const QString &query, const QString &typed)
{
    QString result = query;
    for (const QString &term : readSpaceAndQuoteDelimitedStringIntoArray(typed)) {
        result = joined(result, term.size() == 1
                                    ? QStringLiteral("( kMDItemDisplayName == \"%1*\"cd )").arg(term)
                                    : QStringLiteral("( kMDItemDisplayName == \"*%1*\"cd )").arg(term));
    }
    return result;
}

QString addFileTypeSearch(const QString &query, const QString &fileType)
{
    if (fileType.isEmpty())
        return query;
    if (fileType.contains(u"kMDItemContent"))
        return joined(query, QStringLiteral("( %1 )").arg(fileType));
    return joined(query, QStringLiteral("( kMDItemContentTypeTree == \"%1\" )").arg(fileType));
}

QString addAllSearch(const QString &query, const QString &typed)
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

QString addSkipSystemFilesSearch(const QString &query)
{
    return joined(query, QStringLiteral("(kMDItemSupportFileType != MDSystemFile)"));
}

bool excludeSpotlightPath(const QString &path)
{
    return path.contains(u"/Library/Caches/");
}

} // namespace

QString SpotlightSearch::currentQueryString(const QString &fileType, const QString &nameSearch,
                                            const QString &searchString)
{
    QString query = addFileNameSearch(QString(), nameSearch);
    query = addFileTypeSearch(query, fileType);
    query = addAllSearch(query, searchString);
    return addSkipSystemFilesSearch(query);
}

QStringList SpotlightSearch::spotlightPaths(const QString &scope, const QString &fileType,
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

QJsonArray SpotlightSearch::doSpotlightSearch(const QString &scope, const QString &fileType,
                                              const QString &nameSearch, const QString &searchString)
{
    QJsonArray records;
    for (const QString &path : spotlightPaths(scope, fileType, nameSearch, searchString))
        records.append(ItemRecords::fileInfoDict(path));
    return records;
}
