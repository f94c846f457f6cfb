#include "platform/UserDefaults.h"

#include "platform/SettingsKeys.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSettings>
#include <QStandardPaths>

#include <sys/stat.h>

#include <mutex>

namespace {

// QSettings objects on one file are safe in separate threads; the lock makes each read-or-write whole
// with respect to the others, so a writer never interleaves with a sync of another thread.
std::mutex s_lock; // guards access to the settings file through QSettings

QSettings open()
{
    return QSettings(UserDefaults::filePath(), QSettings::IniFormat);
}

const SettingsKeys::Setting *find(const QString &key)
{
    for (const SettingsKeys::Setting &setting : SettingsKeys::all()) {
        if (setting.key == key)
            return &setting;
    }
    return nullptr;
}

} // namespace

QString UserDefaults::filePath()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
           QStringLiteral("/vandrel/vandrel.conf");
}

QVariant UserDefaults::value(const QString &key)
{
    const SettingsKeys::Setting *setting = find(key);
    if (setting && setting->environment && qEnvironmentVariableIsSet(setting->environment))
        return qEnvironmentVariable(setting->environment);
    {
        const std::lock_guard guard(s_lock);
        QSettings settings = open();
        if (settings.contains(key))
            return settings.value(key);
    }
    return setting ? setting->defaultValue : QVariant();
}

void UserDefaults::setValue(const QString &key, const QVariant &value)
{
    const std::lock_guard guard(s_lock);
    QSettings settings = open();
    settings.setValue(key, value);
    settings.sync();
    // The settings hold paths of the user's files (the indexed folders, the last StorageRoot found).
    ::chmod(QFile::encodeName(QFileInfo(settings.fileName()).absolutePath()).constData(), 0700);
    ::chmod(QFile::encodeName(settings.fileName()).constData(), 0600);
}

void UserDefaults::remove(const QString &key)
{
    const std::lock_guard guard(s_lock);
    QSettings settings = open();
    settings.remove(key);
    settings.sync();
}

bool UserDefaults::contains(const QString &key)
{
    const std::lock_guard guard(s_lock);
    return open().contains(key);
}
