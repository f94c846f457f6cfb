#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QSizeF>
#include <QString>
#include <QVariantMap>

#include <optional>
#include <utility>

// The item records that searches and listings return, one per file or folder, and the page around them.
class ItemRecords
{
public:
    // "path", "mod_date", "dir" and "size" when known, "pkg", "display".
    static QJsonObject fileInfoDict(const QString &path);
    // Adds the Dropbox and preview keys to the records of the page that is sent.
    static void polishResults(QJsonArray &records, const QJsonObject &request);
    // Cuts the page that "result_page" asks for and writes "items", "total_item_count", "num_pages" and
    // "page_size" into the result. Pages of 40 once there are 73 records or more.
    static QJsonArray pageOf(const QJsonArray &records, const QJsonObject &request, QJsonObject &result);
    // The same rule for a list of `count` entries that are not records yet: writes the page keys other
    // than "items" and returns the first index and the length of the page, so that only the page's
    // records need building.
    static std::pair<qsizetype, qsizetype> pageRange(qsizetype count, const QJsonObject &request,
                                                     QJsonObject &result);
    // Sorts records by "display" as a file manager does: case-, accent- and width-insensitive, numbers by
    // value ("file 9" before "file 10"), names that differ only in case in a fixed order.
    static void finderSortWithLocale(QJsonArray &records);

    static QString displayNameAtPath(const QString &path);
    // A folder named as an application or other bundle (".app", ".AppDir", ".bundle", ".framework",
    // ".plugin", ".photolibrary"), which the WebApp shows as one item; photo libraries stay browsable.
    // Decided by the name, so a check costs no lookup unless the name is a bundle's.
    static bool isSealedPackage(const QString &path);
    static bool okToUpload(const QString &path);
    // The same with the is-directory fact already known, so no stat is needed.
    static bool okToUpload(const QString &path, bool isDirectory);
    static QStringList getSubFolders(const QString &folder);
    static QSizeF previewSize(const QString &path);
    static QSizeF mediaSize(const QVariantMap &item);
    static QString extraInfoString(const QString &path);
    // The two above from attributes already read (none when the index has no record of the path).
    static QSizeF previewSize(const std::optional<QVariantMap> &item);
    static QString extraInfoString(const std::optional<QVariantMap> &item);
    static std::optional<QString> mdItemString(const QVariantMap &item, const QString &attribute);
    static QString add(const std::optional<QString> &value, const QString &accumulated,
                       const QString &format);

    // The index's attributes of a path, or none when it has no record (or there is no index).
    static std::optional<QVariantMap> metadataFor(const QString &path);
};
