#pragma once

#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>
#include <QString>

#include <chrono>
#include <cstddef>
#include <deque>
#include <functional>
#include <list>
#include <map>
#include <optional>
#include <unordered_map>

// Browser requests waiting for the computer they are meant for, the agents' polls held open for them, and
// the browser calls waiting for results. Not thread-safe: the server's one reactor thread owns it.
class RequestQueues
{
public:
    using Clock = std::chrono::steady_clock;
    // The answer body for the browser, or none when the request expired first.
    using ResultHandler = std::function<void(std::optional<QByteArray> answer)>;
    using PollHandler = std::function<void(QJsonArray requests)>;

    RequestQueues(std::size_t maxWaitingPerComputer, int maxPerReply);

    // Queues a request for the computer with a fresh "relay_ticket" (for an encrypted request also its
    // "cache_key") and returns the ticket; none when the computer's queue is full. A held poll of that
    // computer gets it at once. The handler runs exactly once: with the result, or with none at the deadline.
    std::optional<QString> enqueue(const QString &computerId, QJsonObject request, Clock::time_point deadline,
                                   ResultHandler handler);

    // Hands out waiting requests (each to this caller only), oldest first.
    QJsonArray take(const QString &computerId);

    // Holds a poll that found nothing: the handler runs once, when a request arrives, unless released first.
    quint64 holdPoll(const QString &computerId, PollHandler handler);
    void releasePoll(const QString &computerId, quint64 pollId);

    // Routes a result to the browser call that sent the ticket, if it came from the computer the request
    // was for and is still awaited. False otherwise (late, unknown, or another computer's ticket).
    bool deliver(const QString &computerId, const QString &ticket, QByteArray answer);

    // Ends every request whose deadline has passed.
    void expire(Clock::time_point now);

    std::size_t waitingCount(const QString &computerId) const;
    std::size_t awaitedCount() const { return m_awaited.size(); }

private:
    struct Waiting
    {
        QString ticket;
        QJsonObject request;
    };
    struct Computer
    {
        std::deque<Waiting> waiting;
        std::list<std::pair<quint64, PollHandler>> polls;
    };
    struct Awaited
    {
        QString computerId;
        Clock::time_point deadline;
        ResultHandler handler;
    };

    void forgetIfIdle(const QString &computerId);

    std::size_t m_maxWaiting;
    int m_maxPerReply;
    quint64 m_nextPollId = 1;
    std::unordered_map<QString, Computer> m_computers;
    std::unordered_map<QString, Awaited> m_awaited;
    std::multimap<Clock::time_point, QString> m_deadlines;
};
