#include "app/AgentLifecycle.h"

#include "common/DropboxHome.h"
#include "engine/UserActivityNotifier.h"
#include "platform/SettingsKeys.h"
#include "platform/UserDefaults.h"
#include "utils/vd_FileUtils.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QSettings>
#include <QTest>

#include <gtest/gtest.h>

#include <thread>

namespace {

using namespace std::chrono_literals;

QString infoFile(const QString &root)
{
    return root + QStringLiteral("/data.vdldata/computers/") + vd_FileUtils::getComputerUUID() +
           QStringLiteral(".json");
}

double lastUpdated(const QString &path)
{
    return vd_FileUtils::readJsonFileMutableDictionary(path).value(QStringLiteral("last_updated")).toDouble();
}

// Runs the real program in the temporary home until its log shows `awaited`, then ends it with SIGTERM.
// Answers everything it logged.
QString runUntilLogged(const TempHome &home, const QStringList &args, const QString &awaited)
{
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    environment.insert(QStringLiteral("VANDREL_KEYCHAIN"), QStringLiteral("file"));
    environment.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"),
                       QStringLiteral("unix:path=/nonexistent/bus"));
    // Should the platform hand pages to xdg-open, no browser starts.
    environment.insert(QStringLiteral("PATH"), home.filePath(QStringLiteral("bin")) + u':' +
                                                   environment.value(QStringLiteral("PATH")));
    environment.insert(QStringLiteral("BROWSER"), home.filePath(QStringLiteral("bin/xdg-open")));
    process.setProcessEnvironment(environment);
    process.setWorkingDirectory(home.path());
    process.start(QStringLiteral(VANDREL_BINARY), args);
    QString log;
    const bool seen = QTest::qWaitFor(
        [&] {
            log += QString::fromUtf8(process.readAllStandardError());
            return log.contains(awaited) || process.state() == QProcess::NotRunning;
        },
        60000);
    process.terminate();
    if (!process.waitForFinished(30000))
        process.kill();
    log += QString::fromUtf8(process.readAllStandardError());
    EXPECT_TRUE(seen && log.contains(awaited)) << log.toStdString();
    return log;
}

} // namespace

TEST(AgentLifecycle, TimersFireNoEarlierThanScheduledAndTheWelcomePageOpensOnTheFirstFourLaunches)
{
    DropboxHome home;
    const QString root = home.root();
    ASSERT_FALSE(AgentLifecycle::isDropboxRunning()) << "a Dropbox process runs on this machine";
    UserDefaults::setValue(SettingsKeys::WebSiteURL, QStringLiteral("http://vandrel.test/any?x=1"));

    // Times a hundred times shorter than the agent's, the welcome pause kept at its full second.
    LifecycleTimes times;
    times.statusEvery = 100ms;
    times.statusOnce = {20ms, 50ms, 150ms, 180ms};
    times.computerInfoOnce = {100ms, 200ms};
    times.dropboxCheck = 40ms;
    times.dropboxNoticeDelay = 40ms;
    times.dropboxNoticeShown = 300ms;
    AgentLifecycle lifecycle(times);
    QList<QUrl> opened;
    lifecycle.setUrlOpener([&](const QUrl &url) { opened << url; });
    QElapsedTimer clock;
    QList<qint64> statusTimes;
    qint64 welcomeAt = -1;
    QObject::connect(&lifecycle, &AgentLifecycle::statusUpdated, [&](const QString &, bool active) {
        statusTimes << clock.elapsed();
        EXPECT_FALSE(active);
    });
    QObject::connect(&lifecycle, &AgentLifecycle::launchFinished, [&] { welcomeAt = clock.elapsed(); });
    QList<qint64> noticeShown, noticeHidden;
    QObject::connect(&lifecycle, &AgentLifecycle::dropboxNoticeShown,
                     [&] { noticeShown << clock.elapsed(); });
    QObject::connect(&lifecycle, &AgentLifecycle::dropboxNoticeHidden,
                     [&] { noticeHidden << clock.elapsed(); });

    clock.start();
    lifecycle.start(nullptr, {});
    const qint64 startTook = clock.elapsed();
    // The computer info file is written at once, before any timer.
    const double firstWrite = lastUpdated(infoFile(root));
    EXPECT_GT(firstWrite, 0);
    EXPECT_TRUE(opened.isEmpty());
    EXPECT_LT(startTook, 1000);

    // The first write is redone by the one-shot computer-info timers (ensureComputerInfo alone would
    // leave a present file untouched).
    EXPECT_TRUE(QTest::qWaitFor([&] { return lastUpdated(infoFile(root)) > firstWrite; }, 10000));
    EXPECT_GE(clock.elapsed(), 95);

    // A deleted info file comes back on a status refresh.
    QFile::remove(infoFile(root));
    EXPECT_TRUE(QTest::qWaitFor([&] { return QFile::exists(infoFile(root)); }, 10000));

    EXPECT_TRUE(QTest::qWaitFor([&] { return statusTimes.size() >= 9 && welcomeAt >= 0; }, 20000));
    // The n-th refresh cannot come before the n-th scheduled time: one-shots at 20, 50, 150, 180 ms and the
    // repeating timer at 100, 200, 300… ms (a coarse timer may fire early by a few per cent).
    const QList<qint64> scheduled = {20, 50, 100, 150, 180, 200, 300, 400, 500};
    for (qsizetype i = 0; i < scheduled.size(); ++i)
        EXPECT_GE(statusTimes[i], scheduled[i] * 90 / 100) << "refresh " << i;

    // The welcome page came from a timer a full second later, while the status timers kept running.
    EXPECT_GE(welcomeAt, 950);
    EXPECT_GE(
        std::count_if(statusTimes.begin(), statusTimes.end(), [&](qint64 at) { return at < welcomeAt; }), 8);
    ASSERT_EQ(opened.size(), 1);
    EXPECT_EQ(opened.first(), QUrl(QStringLiteral("https://vandrel.test/welcome/")));

    // Later launches: the welcome page opens on the first four only.
    for (int launch = 2; launch <= 5; ++launch) {
        AgentLifecycle::incrementLaunchCount();
        lifecycle.launchBrowserSoUserCanTest();
        EXPECT_EQ(opened.size(), std::min(launch, 4)) << "launch " << launch;
    }

    // A count edited by hand to the top of the range, or to a word, neither wraps nor stops the launch.
    UserDefaults::setValue(SettingsKeys::LaunchCount, QStringLiteral("2147483647"));
    AgentLifecycle::incrementLaunchCount();
    EXPECT_EQ(AgentLifecycle::launchCount(), std::numeric_limits<int>::max());
    UserDefaults::setValue(SettingsKeys::LaunchCount, QStringLiteral("many"));
    AgentLifecycle::incrementLaunchCount();
    EXPECT_EQ(AgentLifecycle::launchCount(), 1);

    // Without a web site address nothing opens, even on an early launch.
    UserDefaults::remove(SettingsKeys::WebSiteURL);
    UserDefaults::setValue(SettingsKeys::LaunchCount, 0);
    lifecycle.launchBrowserSoUserCanTest();
    EXPECT_EQ(opened.size(), 4);

    // Dropbox is not running: one notice per launch, after the check at 40 ms and 40 ms more, for 300 ms.
    ASSERT_EQ(noticeShown.size(), 1);
    ASSERT_EQ(noticeHidden.size(), 1);
    EXPECT_GE(noticeShown.first(), 76);
    EXPECT_GE(noticeHidden.first() - noticeShown.first(), 285);

    // A user coming back, noticed on a worker thread, drops the remembered StorageRoot so that one made
    // meanwhile is found.
    UserDefaults::setValue(SettingsKeys::LastBestPath, root);
    std::thread([] { Q_EMIT UserActivityNotifier::instance().UserCameOnline(); }).join();
    EXPECT_TRUE(QTest::qWaitFor([] { return !UserDefaults::contains(SettingsKeys::LastBestPath); }, 10000));

    // A program whose path names Dropbox counts as Dropbox running: no notice.
    QDir(home.path()).mkpath(QStringLiteral(".dropbox-dist"));
    const QString fake = home.filePath(QStringLiteral(".dropbox-dist/dropboxd"));
    ASSERT_TRUE(QFile::copy(QStringLiteral("/bin/sleep"), fake));
    QProcess dropbox;
    dropbox.start(fake, {QStringLiteral("60")});
    ASSERT_TRUE(dropbox.waitForStarted());
    EXPECT_TRUE(AgentLifecycle::isDropboxRunning());
    noticeShown.clear();
    lifecycle.ensureDropboxIsRunning();
    QTest::qWait(200);
    EXPECT_TRUE(noticeShown.isEmpty());
    dropbox.kill();
    dropbox.waitForFinished();
}

TEST(Faces, HeadlessAndDesktopShareTheLaunchSequence)
{
    TempHome home;
    QSettings settings(home.filePath(QStringLiteral(".config/vandrel/vandrel.conf")), QSettings::IniFormat);
    settings.setValue(QStringLiteral("WebSiteURL"), QStringLiteral("https://vandrel.test"));
    settings.sync();
    home.writeFile(QStringLiteral("bin/xdg-open"), "#!/bin/sh\nexit 0\n");
    QFile::setPermissions(home.filePath(QStringLiteral("bin/xdg-open")), QFile::ReadOwner | QFile::ExeOwner);
    const QString welcome = QStringLiteral("opening https://vandrel.test/welcome/");

    // Without a screen the welcome page is a log line, and no autostart entry is made: the systemd user
    // unit starts this face.
    const QString headless = runUntilLogged(home, {QStringLiteral("--headless")}, welcome);
    EXPECT_TRUE(headless.contains(QStringLiteral("vandrel running headless")));
    EXPECT_FALSE(QDir(home.filePath(QStringLiteral(".config/autostart"))).exists());

    // The desktop face on a platform without a tray: the window, the same welcome page (no browser here),
    // and the autostart entry that starts this very program.
    const QString desktop = runUntilLogged(home, {}, welcome);
    EXPECT_TRUE(desktop.contains(QStringLiteral("no system tray is available"))) << desktop.toStdString();
    EXPECT_TRUE(readFile(home.filePath(QStringLiteral(".config/autostart/vandrel.desktop")))
                    .contains("\nExec=" +
                              QFileInfo(QStringLiteral(VANDREL_BINARY)).canonicalFilePath().toUtf8() + "\n"));

    settings.sync();
    EXPECT_EQ(settings.value(QStringLiteral("vn_launch_count")).toInt(), 2);
}
