#include "metadata/MetadataConfig.h"

#include "platform/Volumes.h"

#include <QDir>
#include <QStandardPaths>

MetadataConfig MetadataConfig::defaults()
{
    MetadataConfig config;
    config.roots.append(QDir::homePath());
    for (const QString &volume : userVolumes(Volumes::localVolumes())) {
        if (!config.roots.contains(volume))
            config.roots.append(volume);
    }
    config.storePath = defaultStorePath();
    return config;
}

QStringList MetadataConfig::userVolumes(const QStringList &mountPoints)
{
    QStringList volumes;
    for (const QString &mountPoint : mountPoints) {
        const QString clean = QDir::cleanPath(mountPoint);
        for (const QLatin1String parent :
             {QLatin1String("/media/"), QLatin1String("/run/media/"), QLatin1String("/mnt/")}) {
            if (clean.startsWith(parent)) {
                volumes.append(clean);
                break;
            }
        }
    }
    return volumes;
}

QString MetadataConfig::defaultStorePath()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation) +
           QStringLiteral("/vandrel/index.db");
}
