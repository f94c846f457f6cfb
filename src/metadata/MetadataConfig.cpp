#include "metadata/MetadataConfig.h"

#include "platform/Volumes.h"

#include <QDir>
#include <QStandardPaths>

MetadataConfig MetadataConfig::defaults()
{
    MetadataConfig config;
    config.roots.append(QDir::homePath());
    for (const QString &volume : Volumes::localVolumes()) {
        if (!config.roots.contains(volume))
            config.roots.append(volume);
    }
    config.storePath = defaultStorePath();
    return config;
}

QString MetadataConfig::defaultStorePath()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation) +
           QStringLiteral("/vandrel/index.db");
}
