#include "RunningRelay.h"

#include <QJsonDocument>
#include <QTest>
#include <QUrl>

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <set>

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

const QString kComputer = u"computer-one"_s;

// A search numbered so that its result can be told apart, with a lifetime when given.
QJsonObject search(int n, const QJsonValue &lifetime = QJsonValue::Undefined)
{
    QJsonObject request{{u"request_type"_s, u"search"_s}, {u"search_dir"_s, u"root_folders"_s}, {u"n"_s, n}};
    if (!lifetime.isUndefined())
        request.insert(u"lifetime"_s, lifetime);
    return request;
}

// Polls as the agent until `count` requests have come, or the deadline passes.
QJsonArray collect(RelayClient &agent, int count, std::chrono::seconds deadline = 20s)
{
    QJsonArray all;
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (all.size() < count && std::chrono::steady_clock::now() < end) {
        for (const QJsonValue &request : RelayClient::requests(agent.poll(kComputer)))
            all.append(request);
    }
    return all;
}

// Asks on a thread of its own, as a page waits for its answer.
std::future<HttpReply> askLater(const RelayClient &browser, const QJsonObject &request,
                                const QString &computer = kComputer)
{
    return std::async(std::launch::async, [=] { return browser.ask(computer, request); });
}

} // namespace

TEST(RelayQueue, EachRequestGoesToOnePostAndItsResultBack)
{
    RunningRelay relay;
    auto browser = relay.browser();
    std::vector<std::future<HttpReply>> calls;
    for (int n = 1; n <= 3; ++n)
        calls.push_back(askLater(*browser, search(n)));
    QJsonObject encrypted{{u"request_type"_s, u"encrypted"_s},
                          {u"encrypted_request"_s, u"AAAA"_s},
                          {u"cache_key"_s, u"chosen-by-page"_s},
                          {u"relay_ticket"_s, u"forged"_s}};
    calls.push_back(askLater(*browser, encrypted));

    // Two agent connections poll at once, as an agent with two StorageRoots does. Each polls on for 6 s
    // unless it alone gets all four, so a request handed out twice would show up here.
    RelayClient agentA(relay.port());
    RelayClient agentB(relay.port());
    auto other = std::async(std::launch::async, [&] { return collect(agentB, 4, 6s); });
    QJsonArray handedOut = collect(agentA, 4, 6s);
    for (const QJsonValue &request : other.get())
        handedOut.append(request);
    ASSERT_EQ(handedOut.size(), 4) << "every request reaches exactly one post, once";

    // Each is answered as the agent does: the request record with its output is the result.
    std::set<QString> tickets;
    for (const QJsonValue &value : handedOut) {
        QJsonObject request = value.toObject();
        const QString ticket = request.value(u"relay_ticket"_s).toString();
        EXPECT_GE(ticket.size(), 20);
        EXPECT_NE(ticket, u"forged"_s);
        tickets.insert(ticket);
        if (request.value(u"request_type"_s) == u"encrypted"_s) {
            EXPECT_EQ(request.value(u"cache_key"_s).toString(), ticket);
            EXPECT_EQ(request.value(u"encrypted_request"_s).toString(), u"AAAA"_s);
            const QByteArray form =
                "computer_id=" + kComputer.toUtf8() + "&cache_key=" + ticket.toUtf8() +
                "&lifetime=30&result_encrypted=c2VjcmV0LWJ5dGVz&os_sessions=" +
                QUrl::toPercentEncoding(QString::fromLatin1(packEnvelope(QJsonDocument(QJsonArray{}))));
            EXPECT_EQ(agentA.postForm("/result_encrypted", form).status, 200);
        } else {
            request.insert(u"items"_s, QJsonArray{request.value(u"n"_s)});
            EXPECT_EQ(agentA.poll(kComputer, {u"s"_s}, request).status, 200);
        }
    }
    EXPECT_EQ(tickets.size(), 4u);
    for (int n = 1; n <= 3; ++n) {
        const HttpReply reply = calls[std::size_t(n - 1)].get();
        ASSERT_EQ(reply.status, 200) << reply.body.toStdString();
        const QJsonObject result = reply.json().value(u"result"_s).toObject();
        EXPECT_EQ(result.value(u"n"_s).toInt(), n);
        EXPECT_EQ(result.value(u"items"_s).toArray(), QJsonArray{n});
    }
    const HttpReply sealed = calls[3].get();
    ASSERT_EQ(sealed.status, 200);
    EXPECT_EQ(sealed.json(), (QJsonObject{{u"result_encrypted"_s, u"c2VjcmV0LWJ5dGVz"_s}}));
}

TEST(RelayQueue, AHeldPollWakesOnlyForItsComputerAndResultsReachOnlyTheLoginThatAsked)
{
    RunningRelay relay([](RelayConfig &config) { config.longPollHold = std::chrono::seconds(30); });
    auto alice = relay.browser();
    auto bob = relay.browser();
    RelayClient agent(relay.port());
    auto held = std::async(std::launch::async, [&] { return agent.poll(kComputer); });
    // The poll is held: without a request it would not answer for 30 s.
    EXPECT_EQ(held.wait_for(500ms), std::future_status::timeout);
    // Bob's computer never polls: his call ends with its lifetime, which the lifetime test checks.
    auto bobCall = askLater(*bob, search(2, 3), u"computer-two"_s);
    auto aliceCall = askLater(*alice, search(1, 3));
    ASSERT_EQ(held.wait_for(20s), std::future_status::ready);
    const QJsonArray mine = RelayClient::requests(held.get());
    ASSERT_EQ(mine.size(), 1);
    const QJsonObject aliceRecord = mine[0].toObject();
    EXPECT_EQ(aliceRecord.value(u"n"_s).toInt(), 1) << "computer-one gets only its own request";

    // Another computer cannot answer with a ticket it was never given, nor can anyone with a made-up one.
    // Posts that carry a result are never held, or Alice's call would run out of its 3 s.
    RelayClient intruder(relay.port());
    EXPECT_EQ(intruder.poll(u"computer-two"_s, {}, aliceRecord).status, 200);
    QJsonObject madeUp = aliceRecord;
    madeUp.insert(u"relay_ticket"_s, u"no-such-ticket"_s);
    EXPECT_EQ(agent.poll(kComputer, {}, madeUp).status, 200);
    EXPECT_EQ(aliceCall.wait_for(300ms), std::future_status::timeout);

    QJsonObject answer = aliceRecord;
    answer.insert(u"message"_s, u"for alice"_s);
    EXPECT_EQ(agent.poll(kComputer, {}, answer).status, 200);
    const HttpReply aliceReply = aliceCall.get();
    EXPECT_EQ(aliceReply.status, 200);
    EXPECT_EQ(aliceReply.json()[u"result"_s][u"message"_s].toString(), u"for alice"_s);
    // A repeated answer finds nobody waiting and harms nothing.
    EXPECT_EQ(agent.poll(kComputer, {}, answer).status, 200);
}

TEST(RelayQueue, LifetimeExpiryAndLimits)
{
    RunningRelay relay([](RelayConfig &config) { config.maxWaitingPerComputer = 3; });
    auto browser = relay.browser();

    const HttpReply expired = browser->ask(kComputer, search(1, 0.5));
    EXPECT_EQ(expired.status, 504);
    EXPECT_EQ(expired.error(), u"timeout"_s);
    EXPECT_EQ(expired.json().value(u"message"_s).toString(), u"The computer did not answer in time."_s);
    RelayClient agent(relay.port());
    EXPECT_TRUE(RelayClient::requests(agent.poll(kComputer)).isEmpty())
        << "an expired request is not handed out";

    for (const QJsonValue &bad :
         {QJsonValue(0), QJsonValue(-5), QJsonValue(u"30"_s), QJsonValue(QJsonArray{})}) {
        const HttpReply reply = browser->ask(kComputer, search(2, bad));
        EXPECT_EQ(reply.status, 400);
        EXPECT_EQ(reply.error(), u"bad_lifetime"_s);
    }

    // A lifetime beyond the cap is cut to it; the agent sees the cut value.
    std::vector<std::future<HttpReply>> waiting;
    waiting.push_back(askLater(*browser, search(3, 1e12)));
    for (int n = 4; n <= 5; ++n)
        waiting.push_back(askLater(*browser, search(n)));
    EXPECT_TRUE(QTest::qWaitFor([&] { return relay.waitingCount(kComputer) >= 3; }, 20000));
    const HttpReply refused = browser->ask(kComputer, search(6));
    EXPECT_EQ(refused.status, 429);
    EXPECT_EQ(refused.error(), u"queue_full"_s);
    const QJsonArray handed = collect(agent, 3);
    ASSERT_EQ(handed.size(), 3);
    for (const QJsonValue &request : handed) {
        if (request[u"n"_s].toInt() == 3) {
            EXPECT_EQ(request[u"lifetime"_s].toDouble(), 120.0);
        }
        agent.poll(kComputer, {}, request.toObject());
    }
    for (auto &call : waiting)
        EXPECT_EQ(call.get().status, 200);

    // API bodies are capped at 1 MiB.
    QJsonObject huge = search(7);
    huge.insert(u"pad"_s, QString(1100 * 1024, u'x'));
    const HttpReply tooLarge = browser->ask(kComputer, huge);
    EXPECT_EQ(tooLarge.status, 413);
    EXPECT_EQ(tooLarge.error(), u"too_large"_s);
}
