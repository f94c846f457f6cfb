#include "common/TempHome.h"
#include "platform/SettingsKeys.h"
#include "platform/UserDefaults.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDir>
#include <QElapsedTimer>
#include <QProcess>
#include <QUrl>

#include <gtest/gtest.h>

namespace {

// Answers as the desktop's file manager does, on a private session bus, and remembers what it was shown.
class FileManagerService : public QObject
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.freedesktop.FileManager1")

public:
    QStringList shown;

public Q_SLOTS:
    void ShowItems(const QStringList &uris, const QString &) { shown << uris; }
};

} // namespace

TEST(RevealOverDBus, TheFileManagerIsAskedToShowTheFoundFileSelected)
{
    TempHome home;
    QProcess bus;
    bus.start(QStringLiteral("dbus-daemon"),
              {QStringLiteral("--session"), QStringLiteral("--nofork"), QStringLiteral("--print-address=1")});
    ASSERT_TRUE(bus.waitForReadyRead(30000));
    const QString address = QString::fromUtf8(bus.readLine()).trimmed();
    QDBusConnection connection = QDBusConnection::connectToBus(address, QStringLiteral("file-manager"));
    FileManagerService service;
    ASSERT_TRUE(connection.registerObject(QStringLiteral("/org/freedesktop/FileManager1"), &service,
                                          QDBusConnection::ExportAllSlots));
    ASSERT_TRUE(connection.registerService(QStringLiteral("org.freedesktop.FileManager1")));

    UserDefaults::setValue(SettingsKeys::LinkServiceURL, QStringLiteral("https://links.example.test"));
    UserDefaults::setValue(SettingsKeys::IndexedRoots, QStringList{home.filePath(QStringLiteral("tree"))});
    const QString file = home.writeFile(QStringLiteral("tree/a/b/c/Straße 1.txt"), "content");
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), address);
    environment.insert(QStringLiteral("DISPLAY"), QStringLiteral(":97"));
    QProcess link, open;
    link.setProcessEnvironment(environment);
    link.start(QStringLiteral(VANDREL_BINARY), {QStringLiteral("link"), file});
    ASSERT_TRUE(link.waitForFinished(60000));
    open.setProcessEnvironment(environment);
    open.start(QStringLiteral(VANDREL_BINARY),
               {QStringLiteral("open"), QString::fromUtf8(link.readAllStandardOutput()).trimmed()});
    // The file manager answers from this thread's event loop while `vandrel open` waits for it.
    QElapsedTimer timer;
    timer.start();
    while (open.state() != QProcess::NotRunning && timer.elapsed() < 60000)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    EXPECT_EQ(open.exitCode(), 0) << open.readAllStandardError().toStdString();
    EXPECT_EQ(service.shown, QStringList{QUrl::fromLocalFile(file).toString(QUrl::FullyEncoded)});
    EXPECT_TRUE(open.readAllStandardOutput().isEmpty()); // shown, not printed
    QDBusConnection::disconnectFromBus(QStringLiteral("file-manager"));
    bus.kill();
    bus.waitForFinished();
}

#include "RevealOverDBusTest.moc"
