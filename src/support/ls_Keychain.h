#pragma once

#include <QString>

#include <optional>

// The agent's secrets by name, under the service "VandrelOSX". Errors are logged and swallowed: a caller
// sees no value (read) or no effect (store). Every call goes to the store afresh; nothing is cached.
class ls_Keychain
{
public:
    static void setString(const QString &value, const QString &key);
    static std::optional<QString> stringForKey(const QString &key);

    // A read that keeps "nothing stored" (no value, no failure) apart from "could not read" (a failure
    // saying why). Logs nothing, so that a caller asking every second can log once per episode.
    struct Read
    {
        std::optional<QString> value;
        std::optional<QString> failure;
    };
    static Read readStringForKey(const QString &key);
};
