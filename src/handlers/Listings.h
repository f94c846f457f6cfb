#pragma once

#include <QJsonArray>
#include <QString>
#include <QStringList>

// What the WebApp sees when it browses: the computer item, the roots, a folder, the iCloud documents
// folder and the iPhoto library. Every listing is a list of item records, unsorted.
class Listings
{
public:
    // The roots for an empty path, the special places by their rules, else the folder's children.
    static QJsonArray doListing(const QString &folder);
    static QJsonArray doRoots();
    // The one record of the computer itself (with "pword_required" when a password is set).
    static QJsonArray doComputerList();
    // The folder's visible children, not descending.
    static QJsonArray doFolderListing(const QString &folder);
    static QJsonArray doICloudListing(const QString &folder);
    static QJsonArray doIPhotoListing(const QString &path);

    // "~/Library/Mobile Documents" when it exists, else "".
    static QString iCloudPath();
    // The iPhoto library when one exists, else "".
    static QString iPhotoPath();
    // Home, Documents, Desktop, Downloads, iCloud, iPhoto, the Dropbox folders, then the local volumes.
    static QStringList homeVolumePaths();
};
