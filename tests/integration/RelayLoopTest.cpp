#include "FakeRelay.h"
#include "common/JsonRecord.h"
#include "utils/vd_FileUtils.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QThread>

#include <gtest/gtest.h>

#include <csignal>

using namespace std::chrono_literals;
using Poll = FakeRelay::Poll;

namespace {

// A temporary home with a Dropbox StorageRoot and a Google Drive one, a relay, and the agent's settings
// pointing at it. The agent itself is started by the test.
struct AgentHome
{
    AgentHome()
    {
        qputenv("VANDREL_RELAY_URL", relay.baseUrl().toUtf8());
        qputenv("VANDREL_KEYCHAIN", "file");
        qunsetenv("VANDREL_RELAY_TIMEOUT");
        home.writeFile(QStringLiteral("Dropbox/Apps/vandrel/data.vdldata/sessions_are_here.json"), "{}");
        QDir().mkpath(home.filePath(QStringLiteral("GDrive/Apps/vandrel")));
        box = home.filePath(QStringLiteral("Dropbox/Apps/vandrel"));
        drive = home.filePath(QStringLiteral("GDrive/Apps/vandrel"));
    }
    ~AgentHome()
    {
        qunsetenv("VANDREL_RELAY_URL");
        qunsetenv("VANDREL_KEYCHAIN");
        qunsetenv("VANDREL_RELAY_TIMEOUT");
    }
    void addSession(const QString &root, const QString &id) const
    {
        QFile file(root + QStringLiteral("/data.vdldata/sessions/") + id + QStringLiteral(".json"));
        QDir().mkpath(root + QStringLiteral("/data.vdldata/sessions"));
        if (file.open(QIODevice::WriteOnly))
            file.write(QStringLiteral("{\"date\": %1}")
                           .arg(vd_FileUtils::JSONDate(QDateTime::currentDateTimeUtc()), 0, 'f', 3)
                           .toUtf8());
    }
    qsizetype countPolls(const std::function<bool(const Poll &)> &condition) const
    {
        const QList<Poll> polls = relay.polls();
        return std::count_if(polls.begin(), polls.end(), condition);
    }

    TempHome home;
    FakeRelay relay;
    QString box;
    QString drive;
};

auto withResult(const char *marker)
{
    return [marker](const Poll &poll) {
        return poll.result && poll.result->value(QStringLiteral("n")) == QString::fromLatin1(marker);
    };
}

} // namespace

TEST(RelayLoop, PollsOnlyWhileSessionsExistOncePerSecondPerStorageRoot)
{
    AgentHome setup;
    AgentProcess agent(setup.home);
    ASSERT_TRUE(agent.running());
    QThread::sleep(2);
    EXPECT_EQ(setup.relay.server().requestCount(), 0) << "an idle agent made network traffic";

    setup.addSession(setup.box, QStringLiteral("s-box"));
    setup.addSession(setup.drive, QStringLiteral("s-drive"));
    ASSERT_TRUE(
        setup.relay.waitForPoll([](const Poll &poll) { return poll.sessions.contains(u"s-drive"); }, 3s));
    const auto fromBox = [](const Poll &poll) {
        return poll.sessions == QStringList{QStringLiteral("s-box")};
    };
    const auto fromDrive = [](const Poll &poll) {
        return poll.sessions == QStringList{QStringLiteral("s-drive")};
    };
    const qsizetype boxBefore = setup.countPolls(fromBox);
    const qsizetype driveBefore = setup.countPolls(fromDrive);
    QThread::sleep(4);
    EXPECT_GE(setup.countPolls(fromBox) - boxBefore, 3);
    EXPECT_LE(setup.countPolls(fromBox) - boxBefore, 5);
    EXPECT_GE(setup.countPolls(fromDrive) - driveBefore, 3);
    EXPECT_LE(setup.countPolls(fromDrive) - driveBefore, 5);
    for (const Poll &poll : setup.relay.polls()) {
        EXPECT_EQ(poll.path, "/result");
        EXPECT_EQ(poll.computerId.size(), 32);
        EXPECT_EQ(QStringList(poll.form.keys()),
                  QStringList({QStringLiteral("computer_id"), QStringLiteral("os_sessions")}));
    }

    // Sessions gone: the traffic stops.
    QDir(setup.box + QStringLiteral("/data.vdldata/sessions")).removeRecursively();
    QDir(setup.drive + QStringLiteral("/data.vdldata/sessions")).removeRecursively();
    QThread::msleep(1500);
    const int settled = setup.relay.server().requestCount();
    QThread::sleep(2);
    EXPECT_EQ(setup.relay.server().requestCount(), settled);

    EXPECT_EQ(agent.stop(SIGINT), 0);
    EXPECT_TRUE(agent.log().contains(QStringLiteral("vandrel stopping")));
}

TEST(RelayLoop, AHostileRelayLeavesTheAgentAliveBoundedAndPollingAgain)
{
    AgentHome setup;
    qputenv("VANDREL_RELAY_TIMEOUT", "2");
    setup.addSession(setup.box, QStringLiteral("s1"));
    AgentProcess agent(setup.home);
    ASSERT_TRUE(setup.relay.waitForPoll([](const Poll &) { return true; }));
    const qint64 baseline = agent.residentKb();

    // A 500 whose body holds requests still runs them.
    setup.relay.setMisbehaviour(TestHttpServer::Reply::json(
        500,
        R"({"requests":[{"request_type":"search","os_session":"s1","search_dir":"root_folders","n":"from500"}]})"));
    EXPECT_TRUE(setup.relay.waitForPoll(withResult("from500")));

    using Reply = TestHttpServer::Reply;
    // Half a million tiny records: each would become a queued operation.
    const QByteArray flood = "{\"requests\":[" + QByteArray("{},").repeated(500'000) + "{}]}";
    for (const Reply &bad :
         {Reply::text(200, "garbage{"), Reply::json(200, "[1,2]"), Reply::json(200, "{\"requests\":7}"),
          Reply::huge(50 * 1024 * 1024), Reply::huge(50 * 1024 * 1024, false), Reply::hangUp(),
          Reply::drip("{\"requests\":[]}", 300ms), Reply::json(200, flood)}) {
        setup.relay.setMisbehaviour(bad);
        const int before = setup.relay.server().requestCount();
        QThread::sleep(3);
        EXPECT_TRUE(agent.running());
        EXPECT_GE(setup.relay.server().requestCount() - before, 2) << "polling stalled";
        EXPECT_LE(setup.relay.server().openConnections(), 8) << "connections pile up";
        EXPECT_LT(agent.residentKb() - baseline, 150 * 1024) << "memory grew without bound";
    }

    // A relay that never answers: each post is given up at the deadline (2 s here), so the polls keep
    // coming long after silent posts would have filled the transport's six connections to the relay.
    setup.relay.setMisbehaviour(Reply::silent());
    QThread::sleep(6);
    const int lateStart = setup.relay.server().requestCount();
    QThread::sleep(3);
    EXPECT_GE(setup.relay.server().requestCount() - lateStart, 2) << "polling stalled behind silent posts";
    EXPECT_LE(setup.relay.server().openConnections(), 8) << "connections pile up";

    // Recovery: within 2 s the agent polls normally and runs what it gets.
    setup.relay.setMisbehaviour(std::nullopt);
    setup.relay.queueRequests(QJsonArray{record(
        {{"request_type", "search"}, {"os_session", "s1"}, {"search_dir", "root_folders"}, {"n", "after"}})});
    EXPECT_TRUE(setup.relay.waitForPoll(withResult("after"), 2s));
    EXPECT_TRUE(agent.log().contains(QStringLiteral("Error status code: 200")));
    EXPECT_EQ(agent.stop(SIGTERM), 0);
}
