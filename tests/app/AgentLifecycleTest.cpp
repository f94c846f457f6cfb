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

} // namespace

TEST(AgentLifecycle, TimersFireNoEarlierThanScheduledAndTheWelcomePauseLeavesTheLoopRunning)
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
    QObject::connect(&lifecycle, &AgentLifecycle::statusUpdated, [&](const QString &text, bool active) {
        statusTimes << clock.elapsed();
        // The status words are inverted on purpose: "active" while no WebApp user is.
        EXPECT_EQ(text, QStringLiteral("active"));
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

TEST(AgentLifecycle, WelcomePageOpensOnTheFirstFourLaunchesOnly)
{
    TempHome home;
    UserDefaults::setValue(SettingsKeys::WebSiteURL, QStringLiteral("https://vandrel.test"));
    AgentLifecycle lifecycle;
    QList<QUrl> opened;
    lifecycle.setUrlOpener([&](const QUrl &url) { opened << url; });
    for (int launch = 1; launch <= 5; ++launch) {
        AgentLifecycle::incrementLaunchCount();
        EXPECT_EQ(AgentLifecycle::launchCount(), launch);
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
}
