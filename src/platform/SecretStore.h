#pragma once

#include <QByteArray>
#include <QString>

#include <memory>

// Generic-password items kept for the agent by the desktop: service + account identify an item, the label is
// what a keyring browser shows. Every call returns a status in the keychain's own numbering, so the layer
// above reports the same codes whatever the back end.
class SecretStore
{
public:
    enum Status : int {
        Success = 0,
        ItemNotFound = -25300,
        NotAvailable = -25291, // no store could be reached, or it did not answer in time
        StoreFailed = -25293,  // the store refused or failed the operation
        Locked = -25308,       // the item's keyring is locked and unlocking it would need the user
    };

    struct Outcome
    {
        int status = Success;
        QString message; // a readable cause for a non-zero status, never holding a secret
    };

    virtual ~SecretStore() = default;

    // Whether an item exists, without reading its secret.
    virtual Outcome exists(const QString &service, const QString &account) = 0;
    // The item's secret; ItemNotFound when there is none or it holds no secret, Locked when it cannot be
    // opened without the user.
    virtual Outcome read(const QString &service, const QString &account, QByteArray *secret) = 0;
    // Creates the item, or replaces the secret of an existing one.
    virtual Outcome write(const QString &service, const QString &label, const QString &account,
                          const QByteArray &secret) = 0;
    // Removes the matching items; ItemNotFound when there was none.
    virtual Outcome remove(const QString &service, const QString &account) = 0;

    // The store of this process, chosen at first use. When a secret was written before, the store that
    // took it (remembered in the settings), even when it cannot be reached now: reads then fail rather than
    // find an older secret elsewhere. Otherwise the Secret Service when it answers within a few seconds and
    // has an unlocked default keyring, else the private file (one log line says why).
    // VANDREL_KEYCHAIN=file forces the file.
    static SecretStore &instance();
    // Chooses the store afresh as for a first use, remembers it and makes it this process's store: the
    // one moment secrets may move between stores, used before the user's new password is written.
    static SecretStore &chooseForNewSecret();
    // "file" or "secret-service": the store instance() uses.
    static QString instanceKind();
};
