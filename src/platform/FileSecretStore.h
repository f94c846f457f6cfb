#pragma once

#include "platform/SecretStore.h"

#include <QJsonObject>

#include <mutex>

// Secrets in a JSON file readable by the user alone, for machines without a Secret Service (headless
// servers). The file is replaced atomically and created with mode 0600 in a 0700 folder; a file that
// group or others can read is refused, for reading and for writing, with a log line, so that a secret
// never sits in a file that leaks it and a misconfigured file is never silently replaced.
class FileSecretStore : public SecretStore
{
public:
    // Default path: $XDG_DATA_HOME/vandrel/keychain.json, taken at each call.
    explicit FileSecretStore(QString path = QString());

    Outcome exists(const QString &service, const QString &account) override;
    Outcome read(const QString &service, const QString &account, QByteArray *secret) override;
    Outcome write(const QString &service, const QString &label, const QString &account,
                  const QByteArray &secret) override;
    Outcome remove(const QString &service, const QString &account) override;

    static QString defaultPath();

private:
    QString path() const;
    Outcome load(QJsonObject *items) const;
    Outcome save(const QJsonObject &items) const;

    QString m_path;
    std::mutex m_lock; // guards read-modify-write cycles of the file
};
