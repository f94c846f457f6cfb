#pragma once

#include <QString>

#include <optional>

// Generic-password items by account and service, over the process's secret store. Failures come back as
// errors of the domain "SFHFKeychainUtilsErrorDomain": -2000 for a missing argument, -1999 for an item
// whose secret cannot be read, otherwise the store's own status. An item that does not exist is no error.
class SFHFKeychainUtils
{
public:
    struct Error
    {
        QString domain;
        int code = 0;
        QString detail; // the store's own words, when it gave any

        QString description() const;
    };

    // Null strings stand for missing arguments; an empty password is a value like any other.
    static std::optional<QString> getPasswordForUsername(const QString &username, const QString &serviceName,
                                                         std::optional<Error> *error = nullptr);

    // Adds the item, or replaces its secret when updateExisting is set; storing the current value writes
    // nothing. An item whose secret cannot be read is deleted first. Without an error out-parameter a
    // failing add or update still answers true, as callers of the original interface rely on.
    static bool storeUsername(const QString &username, const QString &password, const QString &serviceName,
                              bool updateExisting, std::optional<Error> *error = nullptr);

    static bool deleteItemForUsername(const QString &username, const QString &serviceName,
                                      std::optional<Error> *error = nullptr);
};
