#pragma once

#include <QProcess>
#include <QString>
#include <QTemporaryDir>

#include <memory>

// A private D-Bus session bus for one test, optionally with a real gnome-keyring-daemon on it. The bus
// address is exported to this process before anything talks to D-Bus, and everything is stopped again
// when the object goes.
class PrivateKeyring
{
public:
    enum class Service {
        None,                    // the bus knows no Secret Service at all
        Hanging,                 // activating the Secret Service starts a program that never registers
        GnomeKeyring,            // a real gnome-keyring-daemon with an unlocked login keyring
        GnomeKeyringWithoutLogin // a real daemon that never got a password, so it has no default keyring
    };

    explicit PrivateKeyring(Service service);
    ~PrivateKeyring();

    // Empty when everything started; else why not (the test then skips).
    QString problem() const { return m_problem; }

private:
    QTemporaryDir m_dir;
    std::unique_ptr<QProcess> m_bus;
    std::unique_ptr<QProcess> m_keyring;
    QString m_problem;
};
