#include "AgentWithSession.h"
#include "common/JsonRecord.h"
#include "utils/vd_FileUtils.h"
#include "utils/vd_SimpleUtils.h"

#include <QDateTime>
#include <QDir>
#include <QJsonDocument>
#include <QThread>

#include <sys/stat.h>

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

// The keys of a result that are neither allowed nor the stamps every answer carries: the request's own,
// the StorageRoot and the date.
QStringList unexpectedKeys(const QJsonObject &result, QStringList allowed)
{
    allowed << QStringLiteral("request_type") << QStringLiteral("search_dir") << QStringLiteral("n")
            << QStringLiteral("os_session") << QStringLiteral("pword_hash")
            << QStringLiteral("vandrel_folder") << QStringLiteral("search_date");
    QStringList keys = result.keys();
    keys.removeIf([&](const QString &key) { return allowed.contains(key); });
    return keys;
}

int mode(const QString &path)
{
    struct stat info;
    return ::lstat(QFile::encodeName(path).constData(), &info) == 0 ? int(info.st_mode & 07777) : -1;
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

    relay.setMisbehaviour(Reply::json(
        500,
        R"({"requests":[{"request_type":"search","os_session":"web","search_dir":"root_folders","n":"a"}]})"));
    EXPECT_TRUE(relay.waitForPoll([](const Poll &poll) {
        return poll.result && poll.result->value(QStringLiteral("n")) == QStringLiteral("a");
    }));

    // A thousand wrong-hash searches in every reply cost bounded memory and a bounded stream of refusals.
    const QByteArray search =
        R"({"request_type":"search","os_session":"web","search_dir":"/","pword_hash":")" +
        QByteArray(64, '0') + "\"}";
    relay.setMisbehaviour(Reply::json(200, "{\"requests\":[" + (search + ',').repeated(999) + search + "]}"));
    const int floodStart = server.requestCount();
    QThread::sleep(6);
    EXPECT_LT(agent->residentKb() - baseline, 60 * 1024) << "memory grew under the flood";
    EXPECT_LT(server.requestCount() - floodStart, 6 * 40) << "every refusal was answered at once";

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

    relay.setMisbehaviour(std::nullopt);
    EXPECT_TRUE(send(record({{"request_type", "search"}, {"search_dir", "root_folders"}}), false, 2s));
    EXPECT_TRUE(agent->log().contains(QStringLiteral("Error status code: 200")));
    EXPECT_EQ(agent->stop(SIGTERM), 0);
}

// The agent's index, search handler and matched-files cache answer through the relay (the rules behind each
// answer have their own tests). Answers carry the StorageRoot and the date, or a refusal, or are held back.
// The password is read afresh for every request, and neither it nor its hash reaches the log.
TEST_F(AgentWithSession, AnswersThroughTheRelay)
{
    home.setPassword(QStringLiteral("changed-pw"));
    hash = vd_SimpleUtils::sha256Hex(computerId + QStringLiteral("___changed-pw"));
    const QJsonObject unknown = ask(record({{"request_type", "Search"}}));
    EXPECT_EQ(unknown.value(QStringLiteral("vandrel_folder")).toString(), root);
    EXPECT_NEAR(unknown.value(QStringLiteral("search_date")).toDouble(),
                vd_FileUtils::JSONDate(QDateTime::currentDateTimeUtc()), 30);
    // Answered under the changed password, so it was read afresh; an unknown type gains only the folder
    // and the date.
    EXPECT_EQ(unknown.size(), 6) << QJsonDocument(unknown).toJson().toStdString();

    // Sealed under the old password: refused in the clear, and a refusal carries no date.
    const QJsonObject wrongKey =
        ask(sealed(record({{"request_type", "search"}}), QStringLiteral("old")), false);
    EXPECT_EQ(wrongKey.value(QStringLiteral("auth_error")), QStringLiteral("auth_pword_failed"));
    EXPECT_EQ(wrongKey.value(QStringLiteral("request_decrypted_ok")), QJsonValue(false));
    EXPECT_FALSE(wrongKey.contains(QStringLiteral("search_date")));
    EXPECT_TRUE(unanswered(record({{"request_type", "Search"}, {"dont_post", true}}), true));

    const QString fresh = home.writeFile(QStringLiteral("Notes/Fresh Minutes.txt"), "budget meeting");
    const QJsonObject notes = record({{"request_type", "search"}, {"search_dir", home.filePath("Notes")}});
    const QJsonObject folder = ask(notes);
    EXPECT_EQ(itemPaths(folder), QStringList{fresh});
    EXPECT_EQ(unexpectedKeys(folder, {"items", "total_item_count", "num_pages", "page_size", "sub_folders",
                                      "computer_name", "last_updated", "platform", "dropbox_path",
                                      "uploads_folder", "app_version"}),
              QStringList());
    for (const QJsonValue &item : folder.value(QStringLiteral("items")).toArray())
        EXPECT_EQ(unexpectedKeys(item.toObject(),
                                 {"path", "mod_date", "dir", "size", "pkg", "display", "in_db", "in_uploads",
                                  "matching_path", "up_ok", "extra_info", "preview_width", "preview_height"}),
                  QStringList());

    // Once the running index has the file, a malformed query finds nothing, not even what its well-formed
    // part would match, and says why.
    const QJsonObject byName =
        record({{"request_type", "search"}, {"search_dir", home.path()}, {"name_search", "minutes"}});
    QStringList found;
    for (int attempt = 0; attempt < 20 && !found.contains(fresh); ++attempt)
        found = itemPaths(ask(byName));
    EXPECT_TRUE(found.contains(fresh));
    // The index of the user's file names and words, and the settings that name folders, are theirs alone.
    const QString index = home.filePath(QStringLiteral(".cache/vandrel/index.db"));
    EXPECT_EQ(mode(QFileInfo(index).path()), 0700);
    EXPECT_EQ(mode(index), 0600);
    EXPECT_EQ(mode(index + QStringLiteral("-wal")), 0600);
    EXPECT_EQ(mode(home.filePath(QStringLiteral(".config/vandrel/vandrel.conf"))), 0600);
    QJsonObject malformed = byName;
    malformed.insert(QStringLiteral("file_type"), QStringLiteral("kMDItemContentTypeTree == (("));
    const QJsonObject broken = ask(malformed);
    EXPECT_TRUE(itemPaths(broken).isEmpty());
    EXPECT_EQ(broken.value(QStringLiteral("total_item_count")).toInt(), 0);
    EXPECT_TRUE(agent->log().contains(QStringLiteral("search failed"))) << agent->log().toStdString();

    // A file just copied into the uploads folder is offered as that copy.
    ask(record({{"request_type", "copy_to_dropbox"}, {"path", fresh}}));
    const QJsonObject item = ask(notes).value(QStringLiteral("items")).toArray().first().toObject();
    EXPECT_TRUE(item.value(QStringLiteral("matching_path"))
                    .toString()
                    .startsWith(root + QStringLiteral("/uploads/")));
    EXPECT_TRUE(item.value(QStringLiteral("up_ok")).toBool());

    EXPECT_FALSE(agent->log().contains(hash)) << "the password hash reached the log";
    EXPECT_FALSE(agent->log().contains(QStringLiteral("changed-pw")));
}
