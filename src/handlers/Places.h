#pragma once

#include <QString>
#include <QStringList>

// The special places the WebApp browses besides ordinary folders: the iCloud documents folder, the iPhoto
// library and the roots of the computer. Each is looked up afresh, so a place that appears or goes away is
// seen at the next request.
class Places
{
public:
    // "~/Library/Mobile Documents" when it exists, else "".
    static QString iCloudPath();
    // The iPhoto library when one exists, else "".
    static QString iPhotoPath();
    // Home, Documents, Desktop, Downloads, iCloud, iPhoto, the Dropbox folders, then the local volumes.
    static QStringList homeVolumePaths();
};
