#pragma once

#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>
#include <QString>
#include <QStringList>

#include <boost/asio/io_context.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http/verb.hpp>
#include <map>
#include <optional>

struct HttpReply
{
    int status = 0;                             // 0: no answer
    std::map<std::string, std::string> headers; // names lower-cased
    QByteArray body;

    QJsonObject json() const;
    QByteArray header(const std::string &lowerName) const;
};

// A keep-alive HTTP client for the relay on 127.0.0.1, one connection, reconnecting when the relay closed
// it. Carries the login cookie once logged in. One thread at a time.
class RelayClient
{
public:
    explicit RelayClient(quint16 port);

    HttpReply request(boost::beast::http::verb method, const std::string &target, const QByteArray &body = {},
                      const std::string &contentType = "application/json",
                      const std::map<std::string, std::string> &headers = {});
    HttpReply get(const std::string &target) { return request(boost::beast::http::verb::get, target); }
    HttpReply post(const std::string &target, const QJsonObject &body);

    bool login(const QByteArray &token);
    QString openSession();
    // A browser request for the computer; blocks until the relay answers.
    HttpReply ask(const QString &computerId, const QJsonObject &request);

    // An agent's poll: the form the agent sends, with the result packed when given.
    HttpReply poll(const QString &computerId, const QStringList &sessions = {},
                   const std::optional<QJsonObject> &result = std::nullopt);
    // The requests of a poll's answer.
    static QJsonArray requests(const HttpReply &reply);

    // Writes raw bytes on a fresh connection and reads what comes back until the relay closes it.
    QByteArray raw(const QByteArray &bytes);

    QByteArray cookie;

private:
    void ensureConnected();

    quint16 m_port;
    boost::asio::io_context m_io;
    std::optional<boost::beast::tcp_stream> m_stream;
    boost::beast::flat_buffer m_buffer;
};

// base64url("=" kept) of zlib of compact JSON, as agents pack "result" and "os_sessions".
QByteArray packEnvelope(const QJsonDocument &document);
