#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QString>
#include <QStringList>

// "search": the computer item, a listing or a search of the metadata index, told apart by the request's
// keys, answered as one page of item records.
class SearchHandler
{
public:
    static void handleSearchRequest(QJsonObject &request);

    // Records of the index's answer below the scope ("" is "/", "~" the home folder), newest first, at most
    // 600, without anything inside a "/Library/Caches/" folder. Empty for an empty or failing query.
    static QJsonArray doSpotlightSearch(const QString &scope, const QString &fileType,
                                        const QString &nameSearch, const QString &searchString);
    // The paths of that answer, before any record is built: a page needs records for its own paths only.
    static QStringList spotlightPaths(const QString &scope, const QString &fileType,
                                      const QString &nameSearch, const QString &searchString);

    // The query text: name clauses, the type clause, any-attribute clauses, and the system-file exclusion,
    // joined by " && ". Terms go in as typed, unescaped.
    static QString currentQueryString(const QString &fileType, const QString &nameSearch,
                                      const QString &searchString);
    static QString addFileNameSearch(const QString &query, const QString &typed);
    static QString addFileTypeSearch(const QString &query, const QString &fileType);
    static QString addAllSearch(const QString &query, const QString &typed);
    static QString addSkipSystemFilesSearch(const QString &query);
    static bool excludeSpotlightPath(const QString &path);

    // Typed text cut into terms: blanks separate, double quotes make phrases, "field:" joins its value.
    static QStringList readSpaceAndQuoteDelimitedStringIntoArray(const QString &typed);
    static QString trimWhiteStuff(const QString &text);
};
