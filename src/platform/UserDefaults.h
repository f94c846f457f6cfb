#pragma once

#include <QString>
#include <QVariant>

// The agent's settings: an INI file at $XDG_CONFIG_HOME/vandrel/vandrel.conf, read afresh from the
// environment on each call so a test can point HOME elsewhere. Safe to call from any thread.
class UserDefaults
{
public:
    static QString filePath();

    // The key's environment override when set; else the stored value; else its default from SettingsKeys;
    // else an invalid QVariant.
    static QVariant value(const QString &key);
    static QString stringValue(const QString &key) { return value(key).toString(); }
    static bool boolValue(const QString &key) { return value(key).toBool(); }
    static int intValue(const QString &key) { return value(key).toInt(); }

    static void setValue(const QString &key, const QVariant &value);
    static void remove(const QString &key);
    // Whether a value is stored in the file (defaults and overrides do not count).
    static bool contains(const QString &key);
};
