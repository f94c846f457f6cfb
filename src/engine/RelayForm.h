#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QJsonValue>
#include <QList>
#include <QString>
#include <QStringList>

#include <functional>
#include <optional>
#include <utility>

// One poll's form: the path it goes to and its fields, all text, in the order they are added.
struct RelayForm
{
    // "/result", or "/result_encrypted" for an encrypted result.
    QString path;
    QList<std::pair<QString, QString>> fields;

    std::optional<QString> value(const QString &name) const;

    // The form of a poll: the result (when there is one) in the clear or encrypted, as its "encrypt_reply"
    // asks, then "computer_id" and "os_sessions". The encryption is only called for an encrypted result.
    // The raw bytes, when any, reach the relay only through it. The caller has already dropped results marked
    // "dont_post".
    static RelayForm build(const std::optional<QJsonObject> &result, const QStringList &sessionIds,
                           const QString &computerId, const std::function<QString()> &encryptResult);

    // A JSON value as a form field: text as it is, a number as its shortest text, a boolean as "1" or "0",
    // an array as its elements' texts joined by ","; none for an object or null.
    static std::optional<QString> fieldText(const QJsonValue &value);
};
