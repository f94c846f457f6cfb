#pragma once

#include <QString>
#include <QStringList>

// The user's mounted local volumes: real local file systems mounted at "/", under "/media/", "/run/media/"
// or "/mnt/". Pseudo, network, snap, boot and read-only loop mounts are never listed.
namespace Volumes {

QStringList localVolumes();

// The rule itself, for a mount point, its file system type and its device.
bool isLocalVolume(const QString &mountPoint, const QByteArray &fileSystemType, const QByteArray &device);

} // namespace Volumes
