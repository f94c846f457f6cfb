#pragma once

#include "relay/RelayServer.h"

#include <QByteArray>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMap>
#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <boost/asio/io_context.hpp>
#include <functional>
#include <memory>
#include <optional>
#include <thread>

struct HttpReply
{
    int status = 0;                       // 0: no answer
    QMap<QByteArray, QByteArray> headers; // names lower-cased
    QByteArray body;

    QJsonObject json() const { return QJsonDocument::fromJson(body).object(); }
    QString error() const { return json().value(QStringLiteral("error")).toString(); }
};

// An HTTP client for the relay on 127.0.0.1, one connection per request, which the relay closes after its
// answer. Carries the login cookie once logged in.
class RelayClient
{
public:
    explicit RelayClient(quint16 port)
        : m_port(port)
    {}

    // extraHeaders: whole header lines, each ending in "\r\n".
    HttpReply request(const char *method, const std::string &target, const QByteArray &body = {},
                      const QByteArray &contentType = "application/json",
                      const QByteArray &extraHeaders = {}) const;
    HttpReply get(const std::string &target) const { return request("GET", target); }
    HttpReply post(const std::string &target, const QJsonObject &body) const;
    // A url-encoded form, as agents post.
    HttpReply postForm(const std::string &target, const QByteArray &form) const
    {
        return request("POST", target, form, "application/x-www-form-urlencoded");
    }

    // Logs in with the token, carrying the cookie from then on when the relay gave one.
    HttpReply login(const QByteArray &token);
    QString openSession() const;
    // A browser request for the computer; blocks until the relay answers.
    HttpReply ask(const QString &computerId, const QJsonObject &request) const;

    // An agent's poll: the form the agent sends, with the result packed when given.
    HttpReply poll(const QString &computerId, const QStringList &sessions = {},
                   const std::optional<QJsonObject> &result = std::nullopt) const;
    // The requests of a poll's answer.
    static QJsonArray requests(const HttpReply &reply);

    // Writes raw bytes on a fresh connection and reads what comes back until the relay closes it.
    QByteArray raw(const QByteArray &bytes) const;

    QByteArray cookie;

private:
    quint16 m_port;
};

// base64url("=" kept) of zlib of compact JSON, as agents pack "result" and "os_sessions".
QByteArray packEnvelope(const QJsonDocument &document);

// A RelayServer on 127.0.0.1 on its own reactor thread, with a temporary cloud folder, state folder and a
// placeholder page, for the lifetime of the object.
class RunningRelay
{
public:
    explicit RunningRelay(const std::function<void(RelayConfig &)> &adjust = {});
    ~RunningRelay();

    quint16 port() const { return m_server->port(); }
    QString storageRoot() const { return path(QStringLiteral("cloud/Apps/vandrel")); }
    QString path(const QString &relative) const { return m_dir.filePath(relative); }
    QByteArray token() const { return m_token; }
    // A client logged in with the access token.
    std::unique_ptr<RelayClient> browser() const;
    // Requests waiting for the computer, read on the server's thread.
    std::size_t waitingCount(const QString &computerId);
    // Stops the server now (the destructor does it otherwise).
    void stop();

private:
    QTemporaryDir m_dir;
    QByteArray m_token;
    boost::asio::io_context m_io;
    std::unique_ptr<RelayServer> m_server;
    std::thread m_thread;
};
