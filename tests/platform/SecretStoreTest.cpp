#include "common/TempHome.h"
#include "platform/FileSecretStore.h"
#include "platform/LibsecretSecretStore.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QThread>

#include <gtest/gtest.h>
#include <libsecret/secret.h>
#include <sys/stat.h>

#include <utility>

namespace {

const QString kService = QStringLiteral("VandrelOSX");
const QString kAccount = QStringLiteral("computer_password_test");

// A private D-Bus session bus for one test with a Secret Service on it: a real gnome-keyring-daemon, or an
// activation that never registers. The bus address is exported to this process before anything talks to
// D-Bus, and everything is stopped again when the object goes.
class PrivateKeyring
{
public:
    enum class Service {
        Hanging,                 // activating the Secret Service starts a program that never registers
        GnomeKeyring,            // a real gnome-keyring-daemon with an unlocked login keyring
        GnomeKeyringWithoutLogin // a real daemon that never got a password, so it has no default keyring
    };

    // The bus and the daemon keep their files in the home, whose runtime folder they share.
    PrivateKeyring(TempHome &home, Service service)
    {
        // GIO keeps the first session bus connection for the process, closed or not, so a second private bus
        // would never be reached; ctest runs each case in a process of its own.
        static bool busUsed = false;
        if (std::exchange(busUsed, true)) {
            problem = QStringLiteral("this process already used a private bus; run each case on its own "
                                     "(ctest does)");
            return;
        }
        const QString dir = home.filePath(QStringLiteral("bus"));
        QDir().mkpath(dir + QStringLiteral("/services"));
        if (service == Service::Hanging)
            home.writeFile(QStringLiteral("bus/services/org.freedesktop.secrets.service"),
                           "[D-BUS Service]\nName=org.freedesktop.secrets\nExec=/bin/sleep 10\n");
        const QString config = home.writeFile(
            QStringLiteral("bus/bus.conf"),
            QStringLiteral(
                "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN\" "
                "\"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
                "<busconfig><type>session</type><listen>unix:path=%1/bus</listen>"
                "<servicedir>%1/services</servicedir><policy context=\"default\">"
                "<allow send_destination=\"*\" eavesdrop=\"true\"/><allow eavesdrop=\"true\"/>"
                "<allow own=\"*\"/></policy></busconfig>\n")
                .arg(dir)
                .toUtf8());

        m_bus.start(QStringLiteral("dbus-daemon"),
                    {QStringLiteral("--config-file=") + config, QStringLiteral("--nofork"),
                     QStringLiteral("--print-address")});
        if (!m_bus.waitForReadyRead(10000)) {
            problem = QStringLiteral("no session bus could be started: ") +
                      QString::fromUtf8(m_bus.readAllStandardError());
            return;
        }
        home.setEnvironment("DBUS_SESSION_BUS_ADDRESS", m_bus.readLine().trimmed());
        if (service == Service::Hanging)
            return;

        const bool unlock = service == Service::GnomeKeyring;
        QStringList arguments{QStringLiteral("--foreground"), QStringLiteral("--components=secrets")};
        if (unlock)
            arguments << QStringLiteral("--unlock");
        m_keyring.start(QStringLiteral("gnome-keyring-daemon"), arguments);
        if (!m_keyring.waitForStarted(10000)) {
            problem = QStringLiteral("gnome-keyring-daemon could not be started");
            return;
        }
        // The password must really reach the daemon before the pipe closes: nothing runs an event loop here.
        if (unlock) {
            m_keyring.write("keyring-test-password");
            m_keyring.waitForBytesWritten(5000);
        }
        m_keyring.closeWriteChannel();
        // The daemon owns its bus name a moment after start; wait until it answers (and, with a password,
        // until its login keyring is ready).
        LibsecretSecretStore store(std::chrono::seconds(2));
        QElapsedTimer waited;
        waited.start();
        for (;;) {
            const SecretStore::Outcome probe =
                unlock ? store.probe() : store.exists(kService, QStringLiteral("~ready"));
            if (probe.status == (unlock ? SecretStore::Success : SecretStore::ItemNotFound))
                return;
            if (waited.elapsed() > 15000) {
                problem = QStringLiteral("gnome-keyring-daemon did not answer (%1): %2")
                              .arg(probe.message, QString::fromUtf8(m_keyring.readAllStandardError()));
                return;
            }
            QThread::msleep(100);
        }
    }

    ~PrivateKeyring()
    {
        for (QProcess *process : {&m_keyring, &m_bus}) {
            if (process->state() != QProcess::NotRunning) {
                process->terminate();
                if (!process->waitForFinished(5000))
                    process->kill();
            }
        }
    }

    // Empty when everything started; else why not (the test then skips).
    QString problem;

private:
    QProcess m_bus;
    QProcess m_keyring;
};

mode_t modeOf(const QString &path)
{
    struct stat info;
    return ::stat(QFile::encodeName(path).constData(), &info) == 0 ? (info.st_mode & 0777) : 0;
}

// Locks the default keyring as a screen locker would; unlocking it again would take a prompt.
bool lockDefaultKeyring()
{
    g_autoptr(SecretService) service = secret_service_get_sync(SECRET_SERVICE_NONE, nullptr, nullptr);
    g_autoptr(SecretCollection) collection =
        service ? secret_collection_for_alias_sync(service, SECRET_COLLECTION_DEFAULT, SECRET_COLLECTION_NONE,
                                                   nullptr, nullptr)
                : nullptr;
    if (!collection)
        return false;
    g_autoptr(GList) objects = g_list_append(nullptr, collection);
    return secret_service_lock_sync(service, objects, nullptr, nullptr, nullptr) == 1;
}

// The round trip every back end must pass.
void exerciseStore(SecretStore &store)
{
    QByteArray secret;
    EXPECT_EQ(store.exists(kService, kAccount).status, SecretStore::ItemNotFound);
    EXPECT_EQ(store.read(kService, kAccount, &secret).status, SecretStore::ItemNotFound);
    EXPECT_EQ(store.remove(kService, kAccount).status, SecretStore::ItemNotFound);

    ASSERT_EQ(store.write(kService, kService, kAccount, "s\xc3\xa9 cret").status, SecretStore::Success);
    EXPECT_EQ(store.exists(kService, kAccount).status, SecretStore::Success);
    EXPECT_EQ(store.exists(QStringLiteral("OtherService"), kAccount).status, SecretStore::ItemNotFound);
    ASSERT_EQ(store.read(kService, kAccount, &secret).status, SecretStore::Success);
    EXPECT_EQ(secret, QByteArray("s\xc3\xa9 cret"));

    ASSERT_EQ(store.write(kService, kService, kAccount, "second").status, SecretStore::Success);
    ASSERT_EQ(store.read(kService, kAccount, &secret).status, SecretStore::Success);
    EXPECT_EQ(secret, QByteArray("second"));

    EXPECT_EQ(store.remove(kService, kAccount).status, SecretStore::Success);
    EXPECT_EQ(store.exists(kService, kAccount).status, SecretStore::ItemNotFound);
}

} // namespace

TEST(SecretStore, FileStoreIsPrivateAndRefusesFilesOthersCanRead)
{
    TempHome home;
    FileSecretStore store;
    exerciseStore(store);

    const QString path = FileSecretStore::defaultPath();
    EXPECT_EQ(path, home.filePath(QStringLiteral(".local/share/vandrel/keychain.json")));
    EXPECT_EQ(modeOf(path), 0600u);
    EXPECT_EQ(modeOf(QFileInfo(path).absolutePath()), 0700u);

    ASSERT_EQ(store.write(kService, kService, kAccount, "kept").status, SecretStore::Success);
    ASSERT_EQ(::chmod(QFile::encodeName(path).constData(), 0644), 0);
    const QByteArray before = readFile(path);
    ASSERT_FALSE(before.isEmpty());
    QByteArray secret;
    EXPECT_EQ(store.read(kService, kAccount, &secret).status, SecretStore::StoreFailed);
    EXPECT_EQ(store.write(kService, kService, kAccount, "new").status, SecretStore::StoreFailed);
    EXPECT_EQ(readFile(path), before); // refused, never replaced
}

TEST(SecretStore, RealGnomeKeyringRoundTripAndLockedKeyring)
{
    TempHome home;
    PrivateKeyring keyring(home, PrivateKeyring::Service::GnomeKeyring);
    if (!keyring.problem.isEmpty())
        GTEST_SKIP() << keyring.problem.toStdString();
    LibsecretSecretStore store;
    exerciseStore(store);

    // A locked item is neither missing nor empty: reading or removing it is refused and it stays.
    ASSERT_EQ(store.write(kService, kService, kAccount, "kept").status, SecretStore::Success);
    ASSERT_TRUE(lockDefaultKeyring());
    QByteArray secret;
    EXPECT_EQ(store.probe().status, SecretStore::Locked);
    EXPECT_EQ(store.exists(kService, kAccount).status, SecretStore::Success);
    EXPECT_EQ(store.read(kService, kAccount, &secret).status, SecretStore::Locked);
    EXPECT_TRUE(secret.isEmpty());
    EXPECT_EQ(store.remove(kService, kAccount).status, SecretStore::Locked);
    EXPECT_EQ(store.exists(kService, kAccount).status, SecretStore::Success);
}

// A daemon without a default keyring answers searches but fails every store; a Secret Service whose
// activation never registers would hold each call for D-Bus's 25 s. Neither is chosen: the process's own
// choice, with its default deadline, falls back to the file within seconds.
class SecretStoreFallback : public ::testing::TestWithParam<PrivateKeyring::Service>
{};

TEST_P(SecretStoreFallback, ToTheFileWithinSeconds)
{
    TempHome home;
    PrivateKeyring keyring(home, GetParam());
    if (!keyring.problem.isEmpty())
        GTEST_SKIP() << keyring.problem.toStdString();
    QElapsedTimer timer;
    timer.start();
    const SecretStore::Outcome outcome = LibsecretSecretStore(std::chrono::milliseconds(1500)).probe();
    EXPECT_EQ(outcome.status, SecretStore::NotAvailable) << outcome.message.toStdString();
    EXPECT_LT(timer.elapsed(), 4000);

    timer.restart();
    SecretStore &chosen = SecretStore::instance();
    EXPECT_LT(timer.elapsed(), 5000);
    EXPECT_NE(dynamic_cast<FileSecretStore *>(&chosen), nullptr);
}

INSTANTIATE_TEST_SUITE_P(SecretStore, SecretStoreFallback,
                         ::testing::Values(PrivateKeyring::Service::GnomeKeyringWithoutLogin,
                                           PrivateKeyring::Service::Hanging),
                         [](const auto &row) {
                             return row.param == PrivateKeyring::Service::Hanging ? "Unanswered" : "NoLogin";
                         });
