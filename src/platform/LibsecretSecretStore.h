#pragma once

#include "platform/SecretStore.h"

#include <chrono>

// Items in the desktop's Secret Service (GNOME Keyring, KeePassXC, KWallet) through libsecret's synchronous
// calls, which are safe from any thread. Every call is cancelled after the deadline: a session bus whose
// keyring daemon cannot start would otherwise hold a caller for D-Bus's 25-second default.
class LibsecretSecretStore : public SecretStore
{
public:
    explicit LibsecretSecretStore(std::chrono::milliseconds deadline = std::chrono::seconds(3));

    // Success when the service answers in time and its default keyring can take items without asking the
    // user; else NotAvailable or Locked with the reason. Reads nothing, writes nothing.
    Outcome probe();

    Outcome exists(const QString &service, const QString &account) override;
    Outcome read(const QString &service, const QString &account, QByteArray *secret) override;
    Outcome write(const QString &service, const QString &label, const QString &account,
                  const QByteArray &secret) override;
    Outcome remove(const QString &service, const QString &account) override;

private:
    std::chrono::milliseconds m_deadline;
};
