#pragma once

#include <QJsonArray>
#include <QJsonObject>
#include <QString>
#include <QStringList>

#include <utility>

// The item records that searches and listings return, one per file or folder, and the page around them.
class ItemRecords
{
public:
    // "path", "mod_date", "dir" and "size" when known, "pkg", "display". A folder named as an application
    // or other bundle (".app", ".AppDir", ".bundle", ".framework", ".plugin", ".photolibrary") is a "pkg",
    // which the WebApp shows as one item; photo libraries stay browsable.
    static QJsonObject fileInfoDict(const QString &path);
    // Adds the Dropbox, upload and preview keys to the records of the page that is sent. Reads the
    // StorageRoot's matched-files cache as it is; refreshing it is the caller's business.
    static void polishResults(QJsonArray &records, const QJsonObject &request);
    // The page of records that "result_page" asks for; writes "total_item_count", "num_pages" and
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
    // The visible sub-folders of a folder ("" is "/"), packages left out.
    static QStringList getSubFolders(const QString &folder);
};
