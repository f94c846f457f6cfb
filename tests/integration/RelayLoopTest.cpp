#include "FakeRelay.h"
#include "common/DropboxHome.h"
#include "common/JsonRecord.h"

#include <QDir>
#include <QThread>

#include <gtest/gtest.h>

#include <csignal>

using namespace std::chrono_literals;
using Poll = FakeRelay::Poll;
using Reply = TestHttpServer::Reply;

namespace {

// A Dropbox home with a second StorageRoot in Google Drive and a relay; the agent is started by the test.
struct RelayHome : DropboxHome
{
    RelayHome()
    {
        setEnvironment("VANDREL_RELAY_URL", relay.baseUrl().toUtf8());
        QDir().mkpath(drive);
    }
    qsizetype polls(const QStringList &sessions) const
    {
        const QList<Poll> all = relay.polls();
        return std::count_if(all.begin(), all.end(),
                             [&](const Poll &poll) { return poll.sessions == sessions; });
    }
    FakeRelay relay;
    const QString drive = filePath(QStringLiteral("GDrive/Apps/vandrel"));
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
    RelayHome home;
    AgentProcess agent(home);
    ASSERT_TRUE(agent.running());
    QThread::sleep(2);
    EXPECT_EQ(home.relay.server().requestCount(), 0) << "an idle agent made network traffic";

    home.addSession(QStringLiteral("s-box"));
    home.addSession(QStringLiteral("s-drive"), home.drive);
    ASSERT_TRUE(
        home.relay.waitForPoll([](const Poll &poll) { return poll.sessions.contains(u"s-drive"); }, 3s));
    const QStringList box{QStringLiteral("s-box")}, drive{QStringLiteral("s-drive")};
    const qsizetype boxBefore = home.polls(box), driveBefore = home.polls(drive);
    QThread::sleep(4);
    for (const qsizetype polled : {home.polls(box) - boxBefore, home.polls(drive) - driveBefore}) {
        EXPECT_GE(polled, 3);
        EXPECT_LE(polled, 5);
    }
    for (const Poll &poll : home.relay.polls()) {
        EXPECT_EQ(poll.path, "/result");
        EXPECT_EQ(poll.computerId.size(), 32);
        EXPECT_EQ(QStringList(poll.form.keys()),
                  QStringList({QStringLiteral("computer_id"), QStringLiteral("os_sessions")}));
    }

    // Sessions gone: the traffic stops.
    QDir(home.root() + QStringLiteral("/data.vdldata/sessions")).removeRecursively();
    QDir(home.drive + QStringLiteral("/data.vdldata/sessions")).removeRecursively();
    QThread::msleep(1500);
    const int settled = home.relay.server().requestCount();
    QThread::sleep(2);
    EXPECT_EQ(home.relay.server().requestCount(), settled);

    EXPECT_EQ(agent.stop(SIGINT), 0);
    EXPECT_TRUE(agent.log().contains(QStringLiteral("vandrel stopping")));
}

TEST(RelayLoop, AHostileRelayLeavesTheAgentAliveBoundedAndPollingAgain)
{
    RelayHome home;
    home.setEnvironment("VANDREL_RELAY_TIMEOUT", "2");
    home.addSession(QStringLiteral("s1"));
    AgentProcess agent(home);
    ASSERT_TRUE(home.relay.waitForPoll([](const Poll &) { return true; }));
    const qint64 baseline = agent.residentKb();
    TestHttpServer &server = home.relay.server();

    // A 500 whose body holds requests still runs them.
    home.relay.setMisbehaviour(Reply::json(
        500,
        R"({"requests":[{"request_type":"search","os_session":"s1","search_dir":"root_folders","n":"a"}]})"));
    EXPECT_TRUE(home.relay.waitForPoll(withResult("a")));

    // Half a million tiny records: each would become a queued operation.
    const QByteArray flood = "{\"requests\":[" + QByteArray("{},").repeated(500'000) + "{}]}";
    for (const Reply &bad :
         {Reply::text(200, "garbage{"), Reply::json(200, "[1,2]"), Reply::json(200, "{\"requests\":7}"),
          Reply::huge(50 * 1024 * 1024), Reply::huge(50 * 1024 * 1024, false), Reply::hangUp(),
          Reply::drip("{\"requests\":[]}", 300ms), Reply::json(200, flood)}) {
        home.relay.setMisbehaviour(bad);
        const int before = server.requestCount();
        QThread::sleep(3);
        EXPECT_TRUE(agent.running());
        EXPECT_GE(server.requestCount() - before, 2) << "polling stalled";
        EXPECT_LE(server.openConnections(), 8) << "connections pile up";
        EXPECT_LT(agent.residentKb() - baseline, 150 * 1024) << "memory grew without bound";
    }

    // A relay that never answers: each post is given up at the deadline (2 s here), so the polls keep
    // coming long after silent posts would have filled the transport's six connections to the relay.
    home.relay.setMisbehaviour(Reply::silent());
    QThread::sleep(6);
    const int lateStart = server.requestCount();
    QThread::sleep(3);
    EXPECT_GE(server.requestCount() - lateStart, 2) << "polling stalled behind silent posts";
    EXPECT_LE(server.openConnections(), 8) << "connections pile up";

    // Recovery: within 2 s the agent polls normally and runs what it gets.
    home.relay.setMisbehaviour(std::nullopt);
    home.relay.queueRequests(QJsonArray{record(
        {{"request_type", "search"}, {"os_session", "s1"}, {"search_dir", "root_folders"}, {"n", "after"}})});
    EXPECT_TRUE(home.relay.waitForPoll(withResult("after"), 2s));
    EXPECT_TRUE(agent.log().contains(QStringLiteral("Error status code: 200")));
    EXPECT_EQ(agent.stop(SIGTERM), 0);
}
