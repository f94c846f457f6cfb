#pragma once

#include <QJsonArray>
#include <QString>
#include <QStringList>

// Searches of the metadata index as the WebApp asks for them: typed name and content terms and a file type
// turned into one query, answered newest first.
class SpotlightSearch
{
public:
    // Records of the index's answer below the scope ("" is "/", "~" the home folder), newest first, at most
    // 600, without anything inside a "/Library/Caches/" folder. Empty for an empty or failing query.
    static QJsonArray doSpotlightSearch(const QString &scope, const QString &fileType,
                                        const QString &nameSearch, const QString &searchString);
    // The paths of that answer, before any record is built: a page needs records for its own paths only.
    static QStringList spotlightPaths(const QString &scope, const QString &fileType,
                                      const QString &nameSearch, const QString &searchString);

    // The query text: name clauses, the type clause, any-attribute clauses, and the system-file exclusion,
    // joined by " && ". Typed text is cut into terms at blanks, double quotes make phrases and "field:"
    // joins its value; terms go in as typed, unescaped.
    static QString currentQueryString(const QString &fileType, const QString &nameSearch,
                                      const QString &searchString);
};
