#include "platform/Volumes.h"

#include <QStorageInfo>

namespace Volumes {

bool isLocalVolume(const QString &mountPoint, const QByteArray &fileSystemType, const QByteArray &device)
{
    static const QByteArrayList localTypes = {"ext2",    "ext3",    "ext4",   "btrfs",    "xfs",     "f2fs",
                                              "jfs",     "zfs",     "vfat",   "exfat",    "ntfs",    "ntfs3",
                                              "fuseblk", "hfsplus", "nilfs2", "bcachefs", "reiserfs"};
    if (!localTypes.contains(fileSystemType))
        return false;
    if (!device.startsWith("/dev/") || device.startsWith("/dev/loop"))
        return fileSystemType == "zfs" && mountPoint == u"/";
    if (mountPoint == u"/")
        return true;
    for (const char *prefix : {"/media/", "/run/media/", "/mnt/"}) {
        if (mountPoint.startsWith(QLatin1String(prefix)) && mountPoint.size() > int(qstrlen(prefix)))
            return true;
    }
    return false;
}

QStringList localVolumes()
{
    QStringList result;
    for (const QStorageInfo &volume : QStorageInfo::mountedVolumes()) {
        if (volume.isValid() && volume.isReady() &&
            isLocalVolume(volume.rootPath(), volume.fileSystemType(), volume.device()))
            result.append(volume.rootPath());
    }
    return result;
}

} // namespace Volumes
