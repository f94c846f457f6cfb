#pragma once

#include "common/TempHome.h"
#include "common/TestHttpServer.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QProcess>

#include <chrono>
#include <functional>
#include <mutex>
#include <optional>

// A RelayServer for tests over loopback HTTP. It decodes every poll and answers it with the next queued
// batch of requests (an empty list when none is queued), or with a set misbehaviour.
class FakeRelay
{
public:
    struct Poll
    {
        QByteArray path;
        QString computerId;
        QStringList sessions;
        // The decoded "result" field of a plain post.
        std::optional<QJsonObject> result;
        QMap<QString, QByteArray> form;
    };

    FakeRelay();

    // The base address the agent is given.
    QString baseUrl() const;
    // The next poll is answered with these requests.
    void queueRequests(const QJsonArray &requests);
    // Every poll is answered so until cleared; queued requests wait meanwhile.
    void setMisbehaviour(std::optional<TestHttpServer::Reply> reply);

    QList<Poll> polls() const;
    // Waits for a poll that satisfies the condition, among all polls so far and those to come.
    std::optional<Poll> waitForPoll(const std::function<bool(const Poll &)> &condition,
                                    std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
    TestHttpServer &server() { return m_server; }

private:
    TestHttpServer::Reply answer(const TestHttpServer::Request &request);

    mutable std::mutex m_lock;
    QList<QJsonArray> m_queued;                          // guarded by m_lock
    std::optional<TestHttpServer::Reply> m_misbehaviour; // guarded by m_lock
    TestHttpServer m_server;
};

// `vandrel --headless` in the current (temporary) home, its output collected in a file there.
class AgentProcess
{
public:
    explicit AgentProcess(const TempHome &home);
    ~AgentProcess();
    bool running() const { return m_process.state() == QProcess::Running; }
    // Sends the signal and waits for the end; the exit code, or -1 when it crashed or would not stop.
    int stop(int signal);
    // Resident memory in kB, 0 when not running.
    qint64 residentKb() const;
    QString log() const;

private:
    QString m_logPath;
    QProcess m_process;
};
