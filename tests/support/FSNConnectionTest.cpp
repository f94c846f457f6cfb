#include "support/FSNConnection.h"

#include "common/TestHttpServer.h"
#include "support/FSNConnectionActivity.h"
#include "support/FSNConnectionQueue.h"
#include "support/FSNData.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QJsonObject>
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
    std::atomic<int> progressCalls = 0;
    std::atomic<bool> parseOnQueue = false;
    std::atomic<bool> parseOnMain = false;
    std::atomic<bool> completionOnMain = false;
    std::atomic<bool> progressOffMain = false;
};

bool onMainThread()
{
    return QThread::currentThread() == QCoreApplication::instance()->thread();
}

std::shared_ptr<FSNConnection> makeConnection(const QUrl &url, FSNRequestMethod method,
                                              QVariantMap parameters, std::shared_ptr<Observed> seen,
                                              bool parseJSON = true, FSNConnection::Headers headers = {})
{
    FSNConnection::ParseBlock parse;
    if (parseJSON) {
        parse = [seen](FSNConnection &connection, std::optional<FSNError> *error) {
            seen->parseOnQueue = QThread::currentThread() == FSNConnectionQueue::thread();
            seen->parseOnMain = onMainThread();
            return FSNConnection::parseJSONDictionary(connection, error);
        };
    }
    return FSNConnection::withUrl(
        url, method, std::move(headers), std::move(parameters), std::move(parse),
        [seen](FSNConnection &) {
            seen->completionOnMain = onMainThread();
            ++seen->completions;
        },
        [seen](FSNConnection &) {
            seen->progressOffMain = seen->progressOffMain || !onMainThread();
            ++seen->progressCalls;
        });
}

// Runs the main thread's events until the condition holds; false after the timeout.
bool spinUntil(const std::function<bool()> &condition, std::chrono::milliseconds timeout = 10s)
{
    QElapsedTimer clock;
    clock.start();
    while (!condition()) {
        if (clock.elapsed() > timeout.count())
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        QThread::msleep(2);
    }
    return true;
}

void spinFor(std::chrono::milliseconds duration)
{
    spinUntil([] { return false; }, duration);
}

} // namespace

TEST(FSNConnection, RequestsOnTheWire)
{
    TestHttpServer server;
    auto seen = std::make_shared<Observed>();

    makeConnection(server.url(QStringLiteral("/result")), FSNRequestMethod::POST,
                   {{QStringLiteral("a"), QStringLiteral("x y&z")}}, seen, false)
        ->start();
    // No parameters: the address stays exactly as given, without "?".
    makeConnection(server.url(QStringLiteral("/a%20b/c")), FSNRequestMethod::GET, {}, seen, false)->start();
    makeConnection(server.url(QStringLiteral("/q")), FSNRequestMethod::GET,
                   {{QStringLiteral("b"), QStringLiteral("x y")}, {QStringLiteral("a"), 1}}, seen, false)
        ->start();
    // Caller headers come last and win over the ones the connection sets.
    makeConnection(server.url(QStringLiteral("/h")), FSNRequestMethod::POST, {{QStringLiteral("k"), 2}}, seen,
                   false, {{"Content-Type", "text/plain"}, {"X-Vandrel", "yes"}})
        ->start();
    ASSERT_TRUE(server.waitForRequests(4));
    ASSERT_TRUE(spinUntil([&] { return seen->completions == 4; }));

    QMap<QByteArray, TestHttpServer::Request> byPath;
    for (const TestHttpServer::Request &request : server.requests())
        byPath.insert(request.path, request);

    const TestHttpServer::Request post = byPath.value("/result");
    EXPECT_EQ(post.method, "POST");
    EXPECT_EQ(post.body, "a=x%20y%26z");
    EXPECT_EQ(post.header("Content-Type"), "application/x-www-form-urlencoded");
    EXPECT_EQ(post.header("Content-Length"), "11");
    EXPECT_EQ(std::count_if(post.headers.cbegin(), post.headers.cend(),
                            [](const auto &header) { return header.first.toLower() == "content-length"; }),
              1);
    EXPECT_EQ(post.form.value(QStringLiteral("a")), "x y&z");

    const TestHttpServer::Request plainGet = byPath.value("/a%20b/c");
    EXPECT_EQ(plainGet.method, "GET");
    EXPECT_EQ(plainGet.target, "/a%20b/c");
    EXPECT_TRUE(plainGet.body.isEmpty());
    EXPECT_FALSE(plainGet.hasHeader("Content-Type"));

    EXPECT_EQ(byPath.value("/q").target, "/q?a=1&b=x%20y");

    const TestHttpServer::Request overridden = byPath.value("/h");
    EXPECT_EQ(overridden.header("Content-Type"), "text/plain");
    EXPECT_EQ(overridden.header("X-Vandrel"), "yes");
    EXPECT_EQ(overridden.body, "k=2");
}

TEST(FSNConnection, MultipartBodyByteForByte)
{
    TestHttpServer server;
    auto seen = std::make_shared<Observed>();
    const QVariantMap parameters{
        {QStringLiteral("text"), QStringLiteral("x y\r\n")},
        {QStringLiteral("number"), 7},
        {QStringLiteral("json"),
         QVariant::fromValue(FSNData("{\"a\":1}", FSNData::MimeTypeJSON, QStringLiteral("r.json")))},
        {QStringLiteral("raw"), QVariant::fromValue(FSNData(QByteArray("\0\xff", 2)))},
        {QStringLiteral("list"), QVariantList{1, 2}},
    };
    makeConnection(server.url(QStringLiteral("/upload")), FSNRequestMethod::POST, parameters, seen, false)
        ->start();
    ASSERT_TRUE(server.waitForRequests(1));
    ASSERT_TRUE(spinUntil([&] { return seen->completions == 1; }));

    const QByteArray expected =
        QByteArray("----FSN-POST-boundary-wXzBVZAKUhpccuA9\r\n"
                   "Content-Disposition: form-data; name=\"json\"; filename=\"r.json\"\r\n"
                   "Content-Type: application/json\r\n"
                   "\r\n"
                   "{\"a\":1}\r\n"
                   "----FSN-POST-boundary-wXzBVZAKUhpccuA9\r\n"
                   "Content-Disposition: form-data; name=\"number\"\r\n"
                   "\r\n"
                   "7\r\n"
                   "----FSN-POST-boundary-wXzBVZAKUhpccuA9\r\n"
                   "Content-Disposition: form-data; name=\"raw\"\r\n"
                   "\r\n") +
        QByteArray("\0\xff", 2) +
        QByteArray("\r\n"
                   "----FSN-POST-boundary-wXzBVZAKUhpccuA9\r\n"
                   "Content-Disposition: form-data; name=\"text\"\r\n"
                   "\r\n"
                   "x y\r\n\r\n"
                   "----FSN-POST-boundary-wXzBVZAKUhpccuA9--\r\n\r\n");
    const TestHttpServer::Request request = server.requests().value(0);
    EXPECT_EQ(request.body, expected);
    EXPECT_EQ(request.header("Content-Type"),
              "multipart/form-data; boundary=--FSN-POST-boundary-wXzBVZAKUhpccuA9");
    EXPECT_EQ(request.header("Content-Length"), QByteArray::number(expected.size()));
    EXPECT_EQ(request.form.value(QStringLiteral("raw")), QByteArray("\0\xff", 2));
    EXPECT_EQ(request.form.value(QStringLiteral("text")), "x y\r\n");
    EXPECT_FALSE(request.form.contains(QStringLiteral("list")));
}

TEST(FSNConnection, ThreadsBodiesAndParseErrors)
{
    TestHttpServer server([](const TestHttpServer::Request &request) {
        if (request.path == "/dict")
            return Reply::json(200, R"({"requests":[]})");
        if (request.path == "/array")
            return Reply::json(200, "[1, 2]");
        return Reply::text(500, "server says no");
    });

    auto dictSeen = std::make_shared<Observed>();
    auto dict = makeConnection(server.url(QStringLiteral("/dict")), FSNRequestMethod::POST, {}, dictSeen);
    auto arraySeen = std::make_shared<Observed>();
    auto array = makeConnection(server.url(QStringLiteral("/array")), FSNRequestMethod::GET, {}, arraySeen);
    auto failSeen = std::make_shared<Observed>();
    auto failing =
        makeConnection(server.url(QStringLiteral("/500")), FSNRequestMethod::GET, {}, failSeen, false);
    for (const auto &connection : {dict, array, failing})
        ASSERT_EQ(connection->start(), connection);
    ASSERT_TRUE(spinUntil(
        [&] { return dictSeen->completions + arraySeen->completions + failSeen->completions == 3; }));
    spinFor(100ms);

    EXPECT_TRUE(dictSeen->parseOnQueue);
    EXPECT_FALSE(dictSeen->parseOnMain);
    EXPECT_TRUE(dictSeen->completionOnMain);
    EXPECT_GE(dictSeen->progressCalls, 1);
    EXPECT_FALSE(dictSeen->progressOffMain);
    EXPECT_EQ(dictSeen->completions, 1);
    EXPECT_TRUE(dict->didSucceed());
    EXPECT_TRUE(dict->parseResult().toJsonObject().contains(QStringLiteral("requests")));
    EXPECT_FLOAT_EQ(dict->downloadProgress(), 1.0f);
    EXPECT_GT(dict->responseInterval(), 0);
    EXPECT_LE(dict->responseInterval(), dict->finishOrFailInterval());
    EXPECT_LE(dict->finishOrFailInterval(), dict->parseInterval());

    EXPECT_EQ(arraySeen->completions, 1);
    EXPECT_FALSE(array->didSucceed());
    EXPECT_EQ(array->error()->code, 1); // what the error says is the JSON reader's, tested with it

    // The status is the caller's business: a 500 is a successful transfer with its body.
    EXPECT_EQ(failSeen->completions, 1);
    EXPECT_TRUE(failing->didSucceed());
    ASSERT_TRUE(failing->httpResponse());
    EXPECT_EQ(failing->httpResponse()->statusCode, 500);
    EXPECT_EQ(failing->responseData(), "server says no");
    EXPECT_TRUE(FSNConnection::connections().isEmpty());
}

TEST(FSNConnection, DeadlineAndSizeCapEndTheTransfer)
{
    TestHttpServer server([](const TestHttpServer::Request &request) {
        if (request.path == "/drip")
            return Reply::drip(QByteArray(100, 'd'), 200ms);
        return Reply::huge(64 * 1024 * 1024, request.path == "/declared");
    });

    auto dripSeen = std::make_shared<Observed>();
    auto drip =
        makeConnection(server.url(QStringLiteral("/drip")), FSNRequestMethod::GET, {}, dripSeen, false);
    drip->setDeadline(1500ms);
    QElapsedTimer clock;
    clock.start();
    drip->start();

    std::vector<std::shared_ptr<FSNConnection>> huge;
    std::vector<std::shared_ptr<Observed>> hugeSeen;
    for (const QString &path : {QStringLiteral("/declared"), QStringLiteral("/undeclared")}) {
        hugeSeen.push_back(std::make_shared<Observed>());
        huge.push_back(makeConnection(server.url(path), FSNRequestMethod::GET, {}, hugeSeen.back()));
        huge.back()->setMaxResponseBytes(1024 * 1024);
        huge.back()->start();
    }

    ASSERT_TRUE(spinUntil([&] { return dripSeen->completions == 1; }));
    const qint64 elapsed = clock.elapsed();
    EXPECT_GE(elapsed, 1400);
    EXPECT_LT(elapsed, 4000);
    ASSERT_TRUE(drip->error());
    EXPECT_EQ(drip->error()->domain, FSNTransportErrorDomain);
    EXPECT_EQ(drip->error()->code, int(QNetworkReply::TimeoutError));
    EXPECT_GT(drip->downloadProgressBytes(), 0);

    ASSERT_TRUE(spinUntil([&] { return hugeSeen[0]->completions == 1 && hugeSeen[1]->completions == 1; }));
    for (const auto &connection : huge) {
        ASSERT_TRUE(connection->error());
        EXPECT_EQ(connection->error()->code, int(QNetworkReply::UnknownContentError));
        EXPECT_LE(connection->responseData().size(), 1024 * 1024);
    }
    // Nothing was parsed, and the aborted transfers closed their connections at the server.
    EXPECT_FALSE(hugeSeen[0]->parseOnQueue);
    EXPECT_TRUE(server.waitForOpenConnections(0));
}

TEST(FSNConnection, CancelLiveSetAndActivityNotices)
{
    TestHttpServer server([](const TestHttpServer::Request &request) {
        return request.path == "/silent" ? Reply::silent() : Reply::json(200, "{}");
    });
    std::atomic<int> began = 0;
    std::atomic<int> ended = 0;
    QObject receiver;
    QObject::connect(&FSNConnectionActivity::instance(), &FSNConnectionActivity::FSNConnectionActivityBegan,
                     &receiver, [&] { ++began; });
    QObject::connect(&FSNConnectionActivity::instance(), &FSNConnectionActivity::FSNConnectionActivityEnded,
                     &receiver, [&] { ++ended; });

    // Two overlapping transfers that finish: one notice each way.
    auto firstSeen = std::make_shared<Observed>();
    auto secondSeen = std::make_shared<Observed>();
    auto first = makeConnection(server.url(QStringLiteral("/1")), FSNRequestMethod::GET, {}, firstSeen);
    auto second = makeConnection(server.url(QStringLiteral("/2")), FSNRequestMethod::POST, {}, secondSeen);
    first->start();
    second->start();
    EXPECT_EQ(first->concurrencyCountAtStart(), 1);
    EXPECT_EQ(second->concurrencyCountAtStart(), 2);
    EXPECT_EQ(FSNConnection::connections().size(), 2);
    EXPECT_EQ(first->start(), nullptr);
    ASSERT_TRUE(spinUntil([&] { return firstSeen->completions + secondSeen->completions == 2; }));
    spinFor(50ms);
    EXPECT_EQ(began, 1);
    EXPECT_EQ(ended, 1);
    EXPECT_TRUE(FSNConnection::connections().isEmpty());

    // Cancelled transfers: no block runs, and the server sees the connections go.
    auto silentSeen = std::make_shared<Observed>();
    auto a = makeConnection(server.url(QStringLiteral("/silent")), FSNRequestMethod::GET, {}, silentSeen);
    auto b = makeConnection(server.url(QStringLiteral("/silent")), FSNRequestMethod::POST, {}, silentSeen);
    a->start();
    b->start();
    ASSERT_TRUE(server.waitForRequests(4));
    a->cancel();
    EXPECT_EQ(FSNConnection::connections(), QList<std::shared_ptr<FSNConnection>>{b});
    EXPECT_EQ(ended, 1);
    FSNConnection::cancelAllConnections();
    EXPECT_TRUE(FSNConnection::connections().isEmpty());
    EXPECT_EQ(began, 2);
    EXPECT_EQ(ended, 2);
    EXPECT_TRUE(server.waitForOpenConnections(0));
    spinFor(200ms);
    EXPECT_EQ(silentSeen->completions, 0);
    EXPECT_EQ(silentSeen->progressCalls, 0);
    EXPECT_FALSE(a->didComplete());

    // A completion already queued for the main thread is dropped as well: the main thread runs no events
    // between the parse and the cancel.
    auto lateSeen = std::make_shared<Observed>();
    auto late = makeConnection(server.url(QStringLiteral("/late")), FSNRequestMethod::GET, {}, lateSeen);
    late->start();
    for (int i = 0; i < 1000 && !lateSeen->parseOnQueue; ++i)
        QThread::msleep(5);
    ASSERT_TRUE(lateSeen->parseOnQueue);
    QThread::msleep(50);
    late->cancel();
    spinFor(200ms);
    EXPECT_EQ(lateSeen->completions, 0);
    EXPECT_EQ(began, 3);
    EXPECT_EQ(ended, 3);
}

TEST(FSNConnection, EveryFailureCompletesOnce)
{
    TestHttpServer server([](const TestHttpServer::Request &) { return Reply::hangUp(); });
    quint16 closedPort = 0;
    {
        TestHttpServer gone;
        closedPort = gone.port();
    }

    struct Case
    {
        QUrl url;
        QString domain;
        bool startsAtOnce;
    };
    const std::vector<Case> cases{
        {QUrl(QStringLiteral("ftp://127.0.0.1/file")), FSNConnectionErrorDomain, false},
        {QUrl(), FSNConnectionErrorDomain, false},
        {QUrl(QStringLiteral("http:///nohost")), FSNConnectionErrorDomain, false},
        {QUrl(QStringLiteral("http://127.0.0.1:%1/").arg(closedPort)), FSNTransportErrorDomain, true},
        {server.url(QStringLiteral("/hangup")), FSNTransportErrorDomain, true},
    };
    for (const Case &c : cases) {
        auto seen = std::make_shared<Observed>();
        auto connection = makeConnection(c.url, FSNRequestMethod::POST, {{QStringLiteral("a"), 1}}, seen);
        EXPECT_EQ(connection->start() != nullptr, c.startsAtOnce) << c.url.toString().toStdString();
        ASSERT_TRUE(spinUntil([&] { return seen->completions >= 1; })) << c.url.toString().toStdString();
        spinFor(50ms);
        EXPECT_EQ(seen->completions, 1);
        EXPECT_TRUE(seen->completionOnMain);
        EXPECT_FALSE(connection->didSucceed());
        ASSERT_TRUE(connection->error());
        EXPECT_EQ(connection->error()->domain, c.domain) << c.url.toString().toStdString();
        if (!c.startsAtOnce) {
            EXPECT_EQ(connection->error()->code, 0);
            EXPECT_EQ(connection->error()->description, QStringLiteral("request cannot be handled"));
        }
    }
    EXPECT_TRUE(FSNConnection::connections().isEmpty());
}
