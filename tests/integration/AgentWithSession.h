#pragma once

#include "common/DropboxHome.h"
#include "common/TestHttpServer.h"

#include <QJsonArray>
#include <QJsonObject>
#include <QProcess>
#include <QStringList>

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
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
        QStringList sessions;
        // The decoded "result" field of a plain post.
        std::optional<QJsonObject> result;
        QMap<QString, QByteArray> form;
    };

    FakeRelay();

    void queueRequests(const QJsonArray &requests);
    // Every poll is answered so until cleared; queued requests wait meanwhile.
    void setMisbehaviour(std::optional<TestHttpServer::Reply> reply);

    QList<Poll> polls() const;
    // Waits for a poll that satisfies the condition, among all polls so far and those to come.
    std::optional<Poll> waitForPoll(const std::function<bool(const Poll &)> &condition,
                                    std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
    TestHttpServer &server() { return m_server; }

private:
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

// One agent in a Dropbox home whose StorageRoot holds an open session "web", with the computer password
// "pw", and a way to send it requests through the relay and read their results.
// A fixture that needs a different home overrides prepareHome, which runs before the agent starts.
class AgentWithSession : public ::testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override;
    virtual void prepareHome() {}

    // Sends one request in session "web", marked so its result can be told apart, and waits for the poll
    // that posts that result.
    std::optional<FakeRelay::Poll> send(QJsonObject request, bool withHash, std::chrono::milliseconds wait);
    // The result of one request sent with the password hash unless told otherwise; an object holding only
    // "missing" with the agent's log when none came in time.
    QJsonObject ask(QJsonObject request, bool withHash = true);
    // Whether no result came for one request, sent without the hash unless told, within a short wait.
    bool unanswered(QJsonObject request, bool withHash = false);
    // The result of a listing of the home folder asked with this password hash.
    QJsonObject searchWith(const QString &proof);
    // The record sealed as an "encrypted" envelope under the password "pw", tagged with the cache key.
    QJsonObject sealed(const QJsonObject &inner, const QString &cacheKey) const;
    // The plaintext of the result posted to /result_encrypted with the cache key, or none.
    std::optional<QByteArray> openedResult(const QString &cacheKey);

    static QStringList itemPaths(const QJsonObject &result);

    DropboxHome home;
    FakeRelay relay;
    QString root;
    QString computerId;
    QString hash;
    std::unique_ptr<AgentProcess> agent;

private:
    QString m_key;
    int m_sent = 0;
};
