#include "support/FSNConnection.h"

#include "common/TestHttpServer.h"
#include "support/FSNCategories.h"
#include "support/FSNConnectionQueue.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QNetworkReply>
#include <QThread>

#include <gtest/gtest.h>

#include <atomic>

using namespace std::chrono_literals;
using Reply = TestHttpServer::Reply;

namespace {

// What the blocks of one connection saw, written on whichever thread ran them.
struct Observed
{
    std::atomic<int> completions = 0;
    std::atomic<bool> parsed = false;
    std::atomic<bool> parseOnQueue = false;
    std::atomic<bool> completionOnMain = false;
};

std::shared_ptr<FSNConnection> makeConnection(const QUrl &url, const std::shared_ptr<Observed> &seen,
                                              QVariantMap parameters = {},
                                              FSNConnection::Headers headers = {})
{
    return FSNConnection::withUrl(
        url, std::move(headers), std::move(parameters),
        [seen](FSNConnection &connection, std::optional<FSNError> *error) {
            seen->parseOnQueue = QThread::currentThread() == FSNConnectionQueue::thread();
            seen->parsed = true;
            dictionaryFromJSONWithError(connection.responseData(), error);
        },
        [seen](FSNConnection &) {
            seen->completionOnMain = QThread::currentThread() == QCoreApplication::instance()->thread();
            ++seen->completions;
        });
}

// Runs the main thread's events until the condition holds; false after ten seconds.
bool spinUntil(const std::function<bool()> &condition)
{
    const QDeadlineTimer deadline(10s);
    while (!condition() && !deadline.hasExpired()) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        QThread::msleep(2);
    }
    return condition();
}

} // namespace

TEST(FSNConnection, FormsOnTheWireStatusIsTheCallersAndParseErrorsFail)
{
    TestHttpServer server([](const TestHttpServer::Request &request) {
        if (request.path == "/array")
            return Reply::json(200, "[1, 2]");
        return request.path == "/500" ? Reply::text(500, R"({"said":"no"})") : Reply::json(200, "{}");
    });
    auto seen = std::make_shared<Observed>();
    auto form = makeConnection(server.url(QStringLiteral("/result")), seen,
                               {{QStringLiteral("a"), QStringLiteral("x y&z")}, {QStringLiteral("n"), 2}});
    // Caller headers come last and win over the ones the connection sets.
    auto headed = makeConnection(server.url(QStringLiteral("/h")), seen, {{QStringLiteral("k"), 2}},
                                 {{"Content-Type", "text/plain"}, {"X-Vandrel", "yes"}});
    auto failing = makeConnection(server.url(QStringLiteral("/500")), seen);
    auto array = makeConnection(server.url(QStringLiteral("/array")), seen);
    for (const auto &connection : {form, headed, failing, array})
        ASSERT_EQ(connection->start(), connection);
    EXPECT_EQ(form->start(), nullptr);
    ASSERT_TRUE(spinUntil([&] { return seen->completions == 4; }));
    EXPECT_TRUE(seen->parseOnQueue);
    EXPECT_TRUE(seen->completionOnMain);

    QMap<QByteArray, TestHttpServer::Request> byPath;
    for (const TestHttpServer::Request &request : server.requests())
        byPath.insert(request.path, request);
    const TestHttpServer::Request post = byPath.value("/result");
    EXPECT_EQ(post.method, "POST");
    EXPECT_EQ(post.body, "a=x%20y%26z&n=2");
    EXPECT_EQ(post.header("Content-Type"), "application/x-www-form-urlencoded");
    EXPECT_EQ(std::count_if(post.headers.cbegin(), post.headers.cend(),
                            [](const auto &header) { return header.first.toLower() == "content-length"; }),
              1);
    EXPECT_EQ(post.header("Content-Length"), "15");
    EXPECT_EQ(byPath.value("/h").header("Content-Type"), "text/plain");
    EXPECT_EQ(byPath.value("/h").header("X-Vandrel"), "yes");

    // A 500 is a successful transfer with its body; a body the parse refuses fails the connection.
    EXPECT_FALSE(failing->error());
    EXPECT_EQ(failing->httpResponse()->statusCode, 500);
    EXPECT_EQ(failing->responseData(), R"({"said":"no"})");
    ASSERT_TRUE(array->error());
    EXPECT_EQ(array->error()->code, 1);
}

// Deadlines, size caps, cancels and failures each end a transfer with one completion at most, and close
// its connection at the server.
TEST(FSNConnection, EveryEndOfATransferCompletesOnceAtMost)
{
    TestHttpServer server([](const TestHttpServer::Request &request) {
        if (request.path == "/drip")
            return Reply::drip(QByteArray(100, 'd'), 200ms);
        if (request.path == "/declared" || request.path == "/undeclared")
            return Reply::huge(64 * 1024 * 1024, request.path == "/declared");
        if (request.path == "/hangup")
            return Reply::hangUp();
        return request.path == "/silent" ? Reply::silent() : Reply::json(200, "{}");
    });
    auto silentSeen = std::make_shared<Observed>();
    for (int i = 0; i < 2; ++i)
        makeConnection(server.url(QStringLiteral("/silent")), silentSeen)->start();
    ASSERT_TRUE(server.waitForRequests(2));
    FSNConnection::cancelAllConnections();
    EXPECT_TRUE(server.waitForOpenConnections(0));

    // A completion already queued for the main thread is dropped as well: the main thread runs no events
    // between the parse and the cancel.
    auto lateSeen = std::make_shared<Observed>();
    auto late = makeConnection(server.url(QStringLiteral("/late")), lateSeen);
    late->start();
    for (int i = 0; i < 1000 && !lateSeen->parsed; ++i)
        QThread::msleep(5);
    ASSERT_TRUE(lateSeen->parsed);
    QThread::msleep(50);
    late->cancel();

    for (const QUrl &url : {QUrl(QStringLiteral("ftp://127.0.0.1/file")), QUrl(),
                            QUrl(QStringLiteral("http:///nohost")), server.url(QStringLiteral("/hangup"))}) {
        const bool handled = url.scheme() == u"http" && !url.host().isEmpty();
        auto seen = std::make_shared<Observed>();
        auto connection = makeConnection(url, seen, {{QStringLiteral("a"), 1}});
        EXPECT_EQ(connection->start() != nullptr, handled) << url.toString().toStdString();
        ASSERT_TRUE(spinUntil([&] { return seen->completions >= 1; })) << url.toString().toStdString();
        QThread::msleep(50);
        QCoreApplication::processEvents();
        EXPECT_EQ(seen->completions, 1);
        ASSERT_TRUE(connection->error());
        EXPECT_EQ(connection->error()->domain, handled ? FSNTransportErrorDomain : FSNConnectionErrorDomain);
    }
    EXPECT_EQ(silentSeen->completions, 0);
    EXPECT_EQ(lateSeen->completions, 0);

    auto dripSeen = std::make_shared<Observed>();
    auto drip = makeConnection(server.url(QStringLiteral("/drip")), dripSeen);
    drip->setDeadline(1500ms);
    QElapsedTimer clock;
    clock.start();
    drip->start();
    auto hugeSeen = std::make_shared<Observed>();
    std::vector<std::shared_ptr<FSNConnection>> huge;
    for (const QString &path : {QStringLiteral("/declared"), QStringLiteral("/undeclared")}) {
        huge.push_back(makeConnection(server.url(path), hugeSeen));
        huge.back()->setMaxResponseBytes(1024 * 1024);
        huge.back()->start();
    }

    ASSERT_TRUE(spinUntil([&] { return dripSeen->completions == 1; }));
    EXPECT_GE(clock.elapsed(), 1400);
    ASSERT_TRUE(drip->error());
    EXPECT_EQ(drip->error()->domain, FSNTransportErrorDomain);
    EXPECT_EQ(drip->error()->code, int(QNetworkReply::TimeoutError));

    ASSERT_TRUE(spinUntil([&] { return hugeSeen->completions == 2; }));
    for (const auto &connection : huge) {
        ASSERT_TRUE(connection->error());
        EXPECT_EQ(connection->error()->code, int(QNetworkReply::UnknownContentError));
        EXPECT_LE(connection->responseData().size(), 1024 * 1024);
    }
    // Nothing was parsed, and the aborted transfers closed their connections at the server.
    EXPECT_FALSE(hugeSeen->parsed);
    EXPECT_TRUE(server.waitForOpenConnections(0));
}
