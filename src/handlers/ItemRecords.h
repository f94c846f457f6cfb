#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QSizeF>
#include <QString>
#include <QVariantMap>

#include <optional>

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
    // Sorts records by "display" as a file manager does: case-, accent- and width-insensitive, numbers by
    // value ("file 9" before "file 10"), names that differ only in case in a fixed order.
    static void finderSortWithLocale(QJsonArray &records);

    static QString displayNameAtPath(const QString &path);
    static bool isSealedPackage(const QString &path);
    static bool okToUpload(const QString &path);
    static QStringList getSubFolders(const QString &folder);
    static QSizeF previewSize(const QString &path);
    static QSizeF mediaSize(const QVariantMap &item);
    static QString extraInfoString(const QString &path);
    static std::optional<QString> mdItemString(const QVariantMap &item, const QString &attribute);
    static QString add(const std::optional<QString> &value, const QString &accumulated,
                       const QString &format);

    // The index's attributes of a path, or none when it has no record (or there is no index).
    static std::optional<QVariantMap> metadataFor(const QString &path);
};
