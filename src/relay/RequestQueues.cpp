#include "relay/RequestQueues.h"

#include "relay/RandomToken.h"

#include <algorithm>

RequestQueues::RequestQueues(std::size_t maxWaitingPerComputer, int maxPerReply)
    : m_maxWaiting(maxWaitingPerComputer)
    , m_maxPerReply(maxPerReply)
{}

std::optional<QString> RequestQueues::enqueue(const QString &computerId, QJsonObject request,
                                              Clock::time_point deadline, ResultHandler handler)
{
    Computer &computer = m_computers[computerId];
    if (computer.waiting.size() >= m_maxWaiting)
        return std::nullopt;
    const QString ticket = randomToken(16);
    request.insert(QStringLiteral("relay_ticket"), ticket);
    // Only "cache_key" travels in the clear beside an encrypted result, so it must carry the ticket.
    if (request.value(QStringLiteral("request_type")).toString() == QStringLiteral("encrypted"))
        request.insert(QStringLiteral("cache_key"), ticket);
    computer.waiting.push_back({ticket, std::move(request)});
    m_awaited.emplace(ticket, Awaited{computerId, deadline, std::move(handler)});
    m_deadlines.emplace(deadline, ticket);
    if (!computer.polls.empty()) {
        PollHandler poll = std::move(computer.polls.front().second);
        computer.polls.pop_front();
        poll(take(computerId));
    }
    return ticket;
}

QJsonArray RequestQueues::take(const QString &computerId)
{
    QJsonArray out;
    const auto found = m_computers.find(computerId);
    if (found == m_computers.end())
        return out;
    std::deque<Waiting> &waiting = found->second.waiting;
    while (!waiting.empty() && out.size() < m_maxPerReply) {
        out.append(std::move(waiting.front().request));
        waiting.pop_front();
    }
    forgetIfIdle(computerId);
    return out;
}

quint64 RequestQueues::holdPoll(const QString &computerId, PollHandler handler)
{
    const quint64 id = m_nextPollId++;
    m_computers[computerId].polls.emplace_back(id, std::move(handler));
    return id;
}

void RequestQueues::releasePoll(const QString &computerId, quint64 pollId)
{
    const auto found = m_computers.find(computerId);
    if (found == m_computers.end())
        return;
    found->second.polls.remove_if([pollId](const auto &poll) { return poll.first == pollId; });
    forgetIfIdle(computerId);
}

bool RequestQueues::deliver(const QString &computerId, const QString &ticket, QByteArray answer)
{
    const auto found = m_awaited.find(ticket);
    if (found == m_awaited.end() || found->second.computerId != computerId)
        return false;
    ResultHandler handler = std::move(found->second.handler);
    m_awaited.erase(found);
    // An answer before the request was handed out (an agent guessing tickets cannot, but a repeated
    // result can) still removes it from the queue.
    const auto computer = m_computers.find(computerId);
    if (computer != m_computers.end()) {
        std::erase_if(computer->second.waiting, [&](const Waiting &w) { return w.ticket == ticket; });
        forgetIfIdle(computerId);
    }
    handler(std::move(answer));
    return true;
}

void RequestQueues::expire(Clock::time_point now)
{
    std::vector<std::pair<QString, ResultHandler>> ended;
    while (!m_deadlines.empty() && m_deadlines.begin()->first <= now) {
        const QString ticket = m_deadlines.begin()->second;
        m_deadlines.erase(m_deadlines.begin());
        const auto found = m_awaited.find(ticket);
        if (found == m_awaited.end())
            continue;
        ended.emplace_back(found->second.computerId, std::move(found->second.handler));
        const auto computer = m_computers.find(found->second.computerId);
        if (computer != m_computers.end())
            std::erase_if(computer->second.waiting, [&](const Waiting &w) { return w.ticket == ticket; });
        m_awaited.erase(found);
    }
    for (auto &[computerId, handler] : ended) {
        forgetIfIdle(computerId);
        handler(std::nullopt);
    }
}

std::size_t RequestQueues::waitingCount(const QString &computerId) const
{
    const auto found = m_computers.find(computerId);
    return found == m_computers.end() ? 0 : found->second.waiting.size();
}

void RequestQueues::forgetIfIdle(const QString &computerId)
{
    const auto found = m_computers.find(computerId);
    if (found != m_computers.end() && found->second.waiting.empty() && found->second.polls.empty())
        m_computers.erase(found);
}
