#include "PrivateKeyring.h"

#include "platform/LibsecretSecretStore.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QStandardPaths>
#include <QThread>

#include <utility>

PrivateKeyring::PrivateKeyring(Service service)
{
    // GIO keeps the first session bus connection for the process, closed or not, so a second private bus
    // would never be reached; ctest runs each case in a process of its own.
    static bool busUsed = false;
    if (std::exchange(busUsed, true)) {
        m_problem = QStringLiteral("this process already used a private bus; run each case on its own "
                                   "(ctest does)");
        return;
    }
    const QString dir = m_dir.path();
    QDir(dir).mkpath(QStringLiteral("services"));
    QDir(dir).mkpath(QStringLiteral("runtime"));
    QFile::setPermissions(dir + QStringLiteral("/runtime"),
                          QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    if (service == Service::Hanging) {
        QFile activation(dir + QStringLiteral("/services/org.freedesktop.secrets.service"));
        activation.open(QIODevice::WriteOnly);
        activation.write("[D-BUS Service]\nName=org.freedesktop.secrets\nExec=/bin/sleep 10\n");
    }
    QFile config(dir + QStringLiteral("/bus.conf"));
    config.open(QIODevice::WriteOnly);
    config.write(
        QStringLiteral("<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\" "
                       "\"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
                       "<busconfig><type>session</type><listen>unix:path=%1/bus</listen>"
                       "<servicedir>%1/services</servicedir><policy context=\"default\">"
                       "<allow send_destination=\"*\" eavesdrop=\"true\"/><allow eavesdrop=\"true\"/>"
                       "<allow own=\"*\"/></policy></busconfig>\n")
            .arg(dir)
            .toUtf8());
    config.close();

    if (QStandardPaths::findExecutable(QStringLiteral("dbus-daemon")).isEmpty()) {
        m_problem = QStringLiteral("dbus-daemon is not installed");
        return;
    }
    m_bus = std::make_unique<QProcess>();
    m_bus->start(QStringLiteral("dbus-daemon"),
                 {QStringLiteral("--config-file=") + config.fileName(), QStringLiteral("--nofork"),
                  QStringLiteral("--print-address")});
    if (!m_bus->waitForReadyRead(10000)) {
        m_problem = QStringLiteral("no session bus could be started: ") +
                    QString::fromUtf8(m_bus->readAllStandardError());
        return;
    }
    qputenv("DBUS_SESSION_BUS_ADDRESS", m_bus->readLine().trimmed());
    qputenv("XDG_RUNTIME_DIR", QFile::encodeName(dir + QStringLiteral("/runtime")));
    if (service == Service::None || service == Service::Hanging)
        return;

    const bool unlock = service == Service::GnomeKeyring;
    QStringList arguments{QStringLiteral("--foreground"), QStringLiteral("--components=secrets")};
    if (unlock)
        arguments << QStringLiteral("--unlock");
    m_keyring = std::make_unique<QProcess>();
    m_keyring->start(QStringLiteral("gnome-keyring-daemon"), arguments);
    if (!m_keyring->waitForStarted(10000)) {
        m_problem = QStringLiteral("gnome-keyring-daemon could not be started");
        return;
    }
    // The password must really reach the daemon before the pipe closes: nothing runs an event loop here.
    if (unlock) {
        m_keyring->write("keyring-test-password");
        m_keyring->waitForBytesWritten(5000);
    }
    m_keyring->closeWriteChannel();
    // The daemon owns its bus name a moment after start; wait until it answers (and, with a password,
    // until its login keyring is ready).
    LibsecretSecretStore store(std::chrono::seconds(2));
    const auto ready = [&] {
        return unlock ? store.probe() : store.exists(QStringLiteral("VandrelOSX"), QStringLiteral("~ready"));
    };
    QElapsedTimer waited;
    waited.start();
    SecretStore::Outcome probe;
    while ((probe = ready()).status != (unlock ? SecretStore::Success : SecretStore::ItemNotFound)) {
        if (waited.elapsed() > 15000) {
            m_problem = QStringLiteral("gnome-keyring-daemon did not answer (%1): %2")
                            .arg(probe.message, QString::fromUtf8(m_keyring->readAllStandardError()));
            return;
        }
        QThread::msleep(100);
    }
}

PrivateKeyring::~PrivateKeyring()
{
    for (QProcess *process : {m_keyring.get(), m_bus.get()}) {
        if (process && process->state() != QProcess::NotRunning) {
            process->terminate();
            if (!process->waitForFinished(5000))
                process->kill();
        }
    }
}
