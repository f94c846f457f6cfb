#include "AgentWithSession.h"
#include "common/JsonRecord.h"

#include <QDir>
#include <QThread>

#include <gtest/gtest.h>

#include <csignal>

using namespace std::chrono_literals;
using Poll = FakeRelay::Poll;
using Reply = TestHttpServer::Reply;

namespace {

// A second StorageRoot in Google Drive beside the Dropbox one, and a relay deadline of two seconds.
class AgentWithTwoRoots : public AgentWithSession
{
protected:
    void prepareHome() override
    {
        QDir().mkpath(drive);
        home.setEnvironment("VANDREL_RELAY_TIMEOUT", "2");
    }
    qsizetype polls(const QStringList &sessions) const
    {
        const QList<Poll> all = relay.polls();
        return std::count_if(all.begin(), all.end(),
                             [&](const Poll &poll) { return poll.sessions == sessions; });
    }
    const QString drive = home.filePath(QStringLiteral("GDrive/Apps/vandrel"));
};

auto withResult(const char *marker)
{
    return [marker](const Poll &poll) {
        return poll.result && poll.result->value(QStringLiteral("n")) == QString::fromLatin1(marker);
    };
}

} // namespace

TEST_F(AgentWithTwoRoots, PollsOnlyWhileSessionsExistOncePerSecondPerStorageRoot)
{
    home.addSession(QStringLiteral("s-drive"), drive);
    ASSERT_TRUE(relay.waitForPoll([](const Poll &poll) { return poll.sessions.contains(u"s-drive"); }, 3s));
    const QStringList box{QStringLiteral("web")}, gdrive{QStringLiteral("s-drive")};
    const qsizetype boxBefore = polls(box), driveBefore = polls(gdrive);
    QThread::sleep(4);
    for (const qsizetype polled : {polls(box) - boxBefore, polls(gdrive) - driveBefore}) {
        EXPECT_GE(polled, 3);
        EXPECT_LE(polled, 5);
    }

    // Sessions gone: the traffic stops.
    QDir(root + QStringLiteral("/data.vdldata/sessions")).removeRecursively();
    QDir(drive + QStringLiteral("/data.vdldata/sessions")).removeRecursively();
    QThread::msleep(1500);
    const int settled = relay.server().requestCount();
    QThread::sleep(2);
    EXPECT_EQ(relay.server().requestCount(), settled) << "an idle agent made network traffic";

    EXPECT_EQ(agent->stop(SIGINT), 0);
    EXPECT_TRUE(agent->log().contains(QStringLiteral("vandrel stopping")));
}

TEST_F(AgentWithTwoRoots, AHostileRelayLeavesTheAgentAliveBoundedAndPollingAgain)
{
    const qint64 baseline = agent->residentKb();
    TestHttpServer &server = relay.server();

    // A 500 whose body holds requests still runs them.
    relay.setMisbehaviour(Reply::json(
        500,
        R"({"requests":[{"request_type":"search","os_session":"web","search_dir":"root_folders","n":"a"}]})"));
    EXPECT_TRUE(relay.waitForPoll(withResult("a")));

    // Half a million tiny records: each would become a queued operation.
    const QByteArray flood = "{\"requests\":[" + QByteArray("{},").repeated(500'000) + "{}]}";
    for (const Reply &bad :
         {Reply::text(200, "garbage{"), Reply::json(200, "[1,2]"), Reply::json(200, "{\"requests\":7}"),
          Reply::huge(50 * 1024 * 1024), Reply::huge(50 * 1024 * 1024, false), Reply::hangUp(),
          Reply::drip("{\"requests\":[]}", 300ms), Reply::json(200, flood)}) {
        relay.setMisbehaviour(bad);
        const int before = server.requestCount();
        QThread::sleep(3);
        EXPECT_TRUE(agent->running());
        EXPECT_GE(server.requestCount() - before, 2) << "polling stalled";
        EXPECT_LE(server.openConnections(), 8) << "connections pile up";
        EXPECT_LT(agent->residentKb() - baseline, 150 * 1024) << "memory grew without bound";
    }

    // A relay that never answers: each post is given up at the deadline (2 s here), so the polls keep
    // coming long after silent posts would have filled the transport's six connections to the relay.
    relay.setMisbehaviour(Reply::silent());
    QThread::sleep(6);
    const int lateStart = server.requestCount();
    QThread::sleep(3);
    EXPECT_GE(server.requestCount() - lateStart, 2) << "polling stalled behind silent posts";
    EXPECT_LE(server.openConnections(), 8) << "connections pile up";

    // Recovery: within 2 s the agent polls normally and runs what it gets.
    relay.setMisbehaviour(std::nullopt);
    relay.queueRequests(QJsonArray{record({{"request_type", "search"},
                                           {"os_session", "web"},
                                           {"search_dir", "root_folders"},
                                           {"n", "after"}})});
    EXPECT_TRUE(relay.waitForPoll(withResult("after"), 2s));
    EXPECT_TRUE(agent->log().contains(QStringLiteral("Error status code: 200")));
    EXPECT_EQ(agent->stop(SIGTERM), 0);
}
