#include "common/DropboxHome.h"
#include "common/JsonRecord.h"
#include "common/LogCapture.h"
#include "engine/vd_Searcher.h"
#include "support/AesCipher.h"
#include "support/Encodings.h"
#include "utils/vd_SimpleUtils.h"

#include <QJsonArray>
#include <QSemaphore>
#include <QThread>

#include <gtest/gtest.h>

#include <mutex>

using namespace Qt::StringLiterals;

namespace {

// Records the requests the handlers see; "info" requests hold their queue thread until the gate lets them by.
struct HandlerProbe
{
    static constexpr int kOpen = 1000;
    HandlerProbe()
    {
        vd_Searcher::HandlerTable table;
        for (const char *type : {"search", "thumb", "info"})
            table[QString::fromLatin1(type)] = [this](vd_Searcher &, QJsonObject &request) {
                {
                    const std::lock_guard lock(mutex);
                    seen.append(request);
                }
                arrived.release();
                if (request.value(u"request_type"_s) == u"info"_s)
                    gate.acquire();
            };
        vd_Searcher::setHandlers(std::move(table));
    }
    ~HandlerProbe()
    {
        gate.release(kOpen);
        vd_Searcher::opQ().waitForDone();
        vd_Searcher::setHandlers({});
    }
    QSemaphore gate;
    QSemaphore arrived; // one for each request a handler saw
    std::mutex mutex;
    QList<QJsonObject> seen; // guarded by mutex
};

} // namespace

TEST(Operation, QueueRunsFourAtOnceSearchesOvertakeThumbnailsAndSessionsResolveToTheirRoot)
{
    // Two StorageRoots: Dropbox first with a session "box", then Google Drive with a session "drive".
    DropboxHome roots;
    roots.addSession(u"box"_s);
    roots.addSession(u"drive"_s, roots.filePath(u"GDrive/Apps/vandrel"_s));
    HandlerProbe probe;
    const QString key = vd_Searcher::encryptionKey().value();
    const QString hash = vd_SimpleUtils::sha256Hex(key);
    const QString sealed = base64Encoding_URL_SAFE(
        encryptWithString(R"({"request_type":"search","search_dir":"root_folders","n":"sealed"})", key)
            .value());

    // Four "info" requests hold every thread of the queue.
    QJsonArray blockers;
    for (int i = 0; i < 4; ++i)
        blockers.append(record({{"request_type", "info"}, {"os_session", "box"}, {"pword_hash", hash}}));
    vd_Searcher::runRequests(blockers);
    ASSERT_TRUE(probe.arrived.tryAcquire(4, 10000));

    const QJsonArray burst{
        record({{"request_type", "thumb"}, {"os_session", "box"}, {"path", ".0.1.1.png"}, {"n", "thumb1"}}),
        record({{"request_type", "thumb"}, {"os_session", "box"}, {"path", ".0.2.2.png"}, {"n", "thumb2"}}),
        record({{"request_type", "encrypted"}, {"os_session", "box"}, {"encrypted_request", sealed}}),
        record({{"request_type", "search"}, {"os_session", "box"}, {"pword_hash", hash}, {"n", "plain"}}),
        // A relay cannot vouch for a request it did not get encrypted.
        record({{"request_type", "search"}, {"os_session", "box"}, {"request_decrypted_ok", true}}),
        QJsonValue(7),
    };
    vd_Searcher::runRequests(burst);
    QThread::msleep(200);
    EXPECT_EQ(probe.seen.size(), 4) << "a fifth operation started while four were running";
    // One thread at a time: the waiting operations then start strictly in the queue's order.
    probe.gate.release();
    ASSERT_TRUE(probe.arrived.tryAcquire(4, 10000));
    probe.gate.release(HandlerProbe::kOpen);
    vd_Searcher::opQ().waitForDone();
    QStringList order;
    for (qsizetype i = 4; i < probe.seen.size(); ++i)
        order << probe.seen[i].value(u"n"_s).toString();
    EXPECT_EQ(order, QStringList({u"sealed"_s, u"plain"_s, u"thumb1"_s, u"thumb2"_s}));
    // The session resolves in its StorageRoot; the computer's small icon needs no hash.
    EXPECT_EQ(probe.seen[7].value(u"vandrel_folder"_s), roots.root());

    // Replies that are not objects, or hold no request array, queue nothing; only the first are refused.
    for (const auto &[body, accepted] :
         {std::pair{"[1,2]", false}, {"garbage", false}, {"{}", true}, {R"({"requests":{"a":1}})", true}})
        EXPECT_EQ(vd_Searcher::runRequestsFromReply(body), accepted) << body;
    vd_Searcher::opQ().waitForDone();
    EXPECT_EQ(probe.seen.size(), 8);

    // A session in the second StorageRoot resolves there; the request's own record is let go after the run.
    LogCapture log;
    vd_Searcher inDrive(record({{"request_type", "info"}, {"os_session", "drive"}, {"pword_hash", hash}}));
    inDrive.main();
    ASSERT_EQ(probe.seen.size(), 9);
    EXPECT_EQ(probe.seen[8].value(u"vandrel_folder"_s), roots.filePath(u"GDrive/Apps/vandrel"_s));
    EXPECT_EQ(inDrive.theRequest(), std::nullopt);

    // No session, or one in no StorageRoot: dropped before any check, the record in the log.
    vd_Searcher orphan(record({{"request_type", "search"}, {"search_dir", "root_folders"}}));
    orphan.main();
    vd_Searcher stranger(record({{"request_type", "search"}, {"os_session", "gone"}, {"pword_hash", hash}}));
    stranger.main();
    EXPECT_EQ(probe.seen.size(), 9);
    EXPECT_TRUE(log.lines.contains(u"no session found for {\"request_type\":\"search\","
                                   u"\"search_dir\":\"root_folders\"}"_s));
    EXPECT_TRUE(log.lines.contains(u"Can't find a storage path..."_s));
}
