#pragma once

#include "FakeRelay.h"
#include "common/DropboxHome.h"

#include <QJsonObject>
#include <QStringList>

#include <gtest/gtest.h>

#include <memory>

// One agent in a Dropbox home whose StorageRoot holds an open session "web", with the computer password
// "pw", and a way to send it requests through the relay and read their results.
// A fixture that needs a different home overrides prepareHome, which runs before the agent starts.
class AgentWithSession : public ::testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override;
    virtual void prepareHome() {}

    // Sends one request (with the password hash unless told otherwise) and waits for its result; an object
    // holding only "missing" with the agent's log when none came in time.
    QJsonObject ask(QJsonObject request, bool withHash = true);
    // Sends one request and answers whether no result for it came within the wait.
    bool unanswered(QJsonObject request, bool withHash = false);
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
    QString mark(QJsonObject &request, bool withHash);
    int m_sent = 0;
};
