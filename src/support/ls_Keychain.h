#pragma once

#include <QString>

#include <optional>

// The agent's secrets by name, under the service "VandrelOSX". Errors are logged and swallowed: a caller
// sees no value (read) or no effect (store, remove). Every call goes to the store afresh; nothing is cached.
class ls_Keychain
{
public:
    static void setString(const QString &value, const QString &key);
    static std::optional<QString> stringForKey(const QString &key);
    static void removeStringForKey(const QString &key);
};
