#include "common/TempHome.h"
#include "common/VandrelCommand.h"
#include "links/qlk_Schema.h"
#include "platform/SettingsKeys.h"
#include "platform/UserDefaults.h"

#include <QDBusConnection>
#include <QDir>
#include <QFile>
#include <QLocalSocket>
#include <QTest>
#include <QUrl>

#include <gtest/gtest.h>

namespace {

const QString kService = QStringLiteral("https://links.example.test/l");

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

// A temporary home (its runtime folder keeps the instance socket private to the test) with the LinkService
// address set and a small indexed tree, without a display.
class FileLinkCommandsTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        m_environment.insert(QStringLiteral("VANDREL_KEYCHAIN"), QStringLiteral("file"));
        m_environment.insert(QStringLiteral("VANDREL_RELAY_URL"), QStringLiteral("http://127.0.0.1:9"));
        for (const char *name : {"DISPLAY", "WAYLAND_DISPLAY", "QT_QPA_PLATFORM"})
            m_environment.remove(QString::fromLatin1(name));
        UserDefaults::setValue(SettingsKeys::LinkServiceURL, kService);
        UserDefaults::setValue(SettingsKeys::IndexedRoots, QStringList{tree()});
        QDir().mkpath(tree());
    }

    QString tree() const { return m_home.filePath(QStringLiteral("tree")); }
    VandrelRun vandrel(const QStringList &args) const { return runVandrel(args, {}, m_environment, tree()); }

    TempHome m_home;
    QProcessEnvironment m_environment = QProcessEnvironment::systemEnvironment();
};

} // namespace

// Links come in the order given, vanished paths left out, also when the display cannot be reached (that
// costs the clipboard, not the links). Opening one asks the file manager to show the file selected.
TEST_F(FileLinkCommandsTest, LinksSkipVanishedPathsInOrderOpenShowsTheFileAndForeignUrlsAreDeclined)
{
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
    m_environment.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"), address);
    m_environment.insert(QStringLiteral("DISPLAY"), QStringLiteral(":97"));

    const QString first = m_home.writeFile(QStringLiteral("tree/b first.txt"), "1");
    const QString second = m_home.writeFile(QStringLiteral("tree/a second.txt"), "22");
    const VandrelRun made =
        vandrel({QStringLiteral("link"), QStringLiteral("b first.txt"), QStringLiteral("gone.txt"), second});
    EXPECT_EQ(made.exitCode, 0) << made.err.toStdString();
    const QStringList links{qlk_Schema::qlkURLFor(first, kService)->toString(QUrl::FullyEncoded),
                            qlk_Schema::qlkURLFor(second, kService)->toString(QUrl::FullyEncoded)};
    EXPECT_EQ(made.out, links.join(u'\n') + u'\n');
    // A bare path means "link".
    const VandrelRun bare = vandrel({second});
    EXPECT_EQ(bare.exitCode, 0);
    EXPECT_EQ(bare.out.trimmed(), links[1]);

    const QString file = m_home.writeFile(QStringLiteral("tree/a/b/c/Straße 1.txt"), "content");
    QProcess open;
    open.setProcessEnvironment(m_environment);
    open.start(QStringLiteral(VANDREL_BINARY),
               {QStringLiteral("open"), vandrel({QStringLiteral("link"), file}).out.trimmed()});
    // The file manager answers from this thread's event loop while `vandrel open` resolves and waits for it.
    EXPECT_TRUE(QTest::qWaitFor([&] { return open.state() == QProcess::NotRunning; }, 60000));
    EXPECT_EQ(open.exitCode(), 0) << open.readAllStandardError().toStdString();
    EXPECT_EQ(service.shown, QStringList{QUrl::fromLocalFile(file).toString(QUrl::FullyEncoded)});
    EXPECT_TRUE(open.readAllStandardOutput().isEmpty()); // shown, not printed
    QDBusConnection::disconnectFromBus(QStringLiteral("file-manager"));
    bus.kill();
    bus.waitForFinished();

    // Nothing left to link; the scheme is case-sensitive; a link of another service is not ours.
    QFile::remove(first);
    const std::tuple<QStringList, int, QString> refused[] = {
        {{QStringLiteral("link"), first}, 1, QStringLiteral("none of the paths exists")},
        {{QStringLiteral("open"), QString(links[1]).replace(kService, QStringLiteral("QLK://"))},
         64,
         QStringLiteral("not a link")},
        {{QStringLiteral("open"), QStringLiteral("https://elsewhere.test/p/1/2/a/b/c")},
         64,
         QStringLiteral("not a link")}};
    for (const auto &[args, exitCode, message] : refused) {
        const VandrelRun run = vandrel(args);
        EXPECT_EQ(run.exitCode, exitCode) << args.join(u' ').toStdString();
        EXPECT_TRUE(run.out.isEmpty() && run.err.contains(message)) << run.err.toStdString();
    }
}

TEST_F(FileLinkCommandsTest, LaterCommandsAndTheDesktopHandTheirWorkToTheRunningAgent)
{
    const QString original =
        m_home.writeFile(QStringLiteral("tree/Users/ann/Documents/plan.odt"), "the plan");
    QProcess agent; // killed when the test ends
    agent.setProcessEnvironment(m_environment);
    agent.start(QStringLiteral(VANDREL_BINARY), {QStringLiteral("--headless")});
    const QString socketPath = m_home.filePath(QStringLiteral(".run/vandrel.socket"));
    ASSERT_TRUE(QTest::qWaitFor([&] { return QFile::exists(socketPath); }, 30000));

    const VandrelRun made = vandrel({QStringLiteral("link"), original});
    ASSERT_EQ(made.exitCode, 0) << made.err.toStdString();
    const QString link = made.out.trimmed();
    const QString moved = tree() + QStringLiteral("/Archive/2026/plan.odt");
    QDir().mkpath(QFileInfo(moved).absolutePath());
    ASSERT_TRUE(QFile::rename(original, moved));

    // The desktop's way in: xdg-open of a link-scheme URL finds our .desktop file and runs `vandrel open`.
    const QString applications = m_home.filePath(QStringLiteral(".local/share/applications"));
    QDir().mkpath(applications);
    ASSERT_TRUE(QFile::copy(QStringLiteral(VANDREL_SOURCE_DIR "/packaging/vandrel-link-handler.desktop"),
                            applications + QStringLiteral("/vandrel-link-handler.desktop")));
    QProcessEnvironment desktop = m_environment;
    desktop.insert(QStringLiteral("PATH"), QFileInfo(QStringLiteral(VANDREL_BINARY)).absolutePath() + u':' +
                                               desktop.value(QStringLiteral("PATH")));
    desktop.insert(QStringLiteral("DISPLAY"), QStringLiteral(":97"));
    desktop.insert(QStringLiteral("XDG_CURRENT_DESKTOP"), QStringLiteral("X-Generic"));
    desktop.insert(QStringLiteral("XDG_DATA_DIRS"), m_home.filePath(QStringLiteral("no-system-data")));
    desktop.insert(QStringLiteral("BROWSER"), QStringLiteral("false"));
    for (const char *name : {"KDE_FULL_SESSION", "GNOME_DESKTOP_SESSION_ID", "MATE_DESKTOP_SESSION_ID",
                             "DESKTOP_SESSION", "XDG_SESSION_DESKTOP"})
        desktop.remove(QString::fromLatin1(name));
    const auto onDesktop = [&](const QString &program, const QStringList &args) {
        QProcess process;
        process.setProcessEnvironment(desktop);
        process.start(program, args);
        process.waitForFinished(60000);
        return VandrelRun{process.exitCode(), {}, QString::fromUtf8(process.readAllStandardError())};
    };
    const VandrelRun mime =
        onDesktop(QStringLiteral("xdg-mime"),
                  {QStringLiteral("default"), QStringLiteral("vandrel-link-handler.desktop"),
                   QStringLiteral("x-scheme-handler/qlk")});
    ASSERT_EQ(mime.exitCode, 0) << mime.err.toStdString();

    // Garbage, an endless line and a silent client on the socket cost the agent nothing.
    QLocalSocket garbage, endless, silent;
    for (QLocalSocket *socket : {&garbage, &endless, &silent}) {
        socket->connectToServer(socketPath);
        ASSERT_TRUE(socket->waitForConnected(10000));
    }
    garbage.write("{\"command\": 7, \"arguments\": \"x\"}\n");
    endless.write(QByteArray(3 * 1024 * 1024, 'x'));
    ASSERT_TRUE(garbage.waitForReadyRead(30000));
    EXPECT_TRUE(garbage.readAll().contains("\"error\""));
    endless.waitForBytesWritten(30000);
    EXPECT_TRUE(endless.state() == QLocalSocket::UnconnectedState || endless.waitForDisconnected(30000));

    // The agent prints what it reveals. Its index may still be catching up with the move, so the link is
    // opened again until it does.
    const QString schemeUrl = QStringLiteral("qlk://") + link.mid(kService.size() + 1);
    QString agentOut;
    bool revealed = false;
    for (int attempt = 0; attempt < 20 && !revealed; ++attempt) {
        const VandrelRun run = onDesktop(QStringLiteral("xdg-open"), {schemeUrl});
        ASSERT_EQ(run.exitCode, 0) << run.err.toStdString();
        revealed = QTest::qWaitFor(
            [&] {
                agentOut += QString::fromUtf8(agent.readAllStandardOutput());
                return agentOut.contains(moved + u'\n');
            },
            3000);
    }
    EXPECT_TRUE(revealed) << agentOut.toStdString();
}

#include "FileLinkCommandsTest.moc"
