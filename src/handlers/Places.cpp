#include "handlers/Places.h"

#include "platform/Volumes.h"
#include "utils/vd_FileUtils.h"

#include <QDir>
#include <QFileInfo>
#include <QStandardPaths>

namespace {

QString existing(const QString &path)
{
    return QFileInfo::exists(path) ? path : QString();
}

} // namespace

QString Places::iCloudPath()
{
    return existing(QDir::homePath() + QStringLiteral("/Library/Mobile Documents"));
}

QString Places::iPhotoPath()
{
    for (const char *library : {"/Pictures/iPhoto Library", "/Pictures/iPhoto Library.photolibrary"}) {
        const QString path = existing(QDir::homePath() + QLatin1String(library));
        if (!path.isEmpty())
            return path;
    }
    return QString();
}

QStringList Places::homeVolumePaths()
{
    QStringList roots{QDir::homePath()};
    for (const QStandardPaths::StandardLocation location :
         {QStandardPaths::DocumentsLocation, QStandardPaths::DesktopLocation,
          QStandardPaths::DownloadLocation})
        roots << QStandardPaths::writableLocation(location);
    if (const QString iCloud = iCloudPath(); !iCloud.isEmpty())
        roots << iCloud;
    if (const QString iPhoto = iPhotoPath(); !iPhoto.isEmpty())
        roots << iPhoto;
    roots += vd_FileUtils::dropBoxFolderGETAll();
    for (const QString &volume : Volumes::localVolumes()) {
        if (volume != u"/home" && volume != u"/net" && volume != u"/Volumes/MobileBackups")
            roots << volume;
    }
    return roots;
}
