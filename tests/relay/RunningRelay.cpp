#include "RunningRelay.h"

#include "common/TempHome.h"
#include "support/Encodings.h"

#include <QDir>
#include <QUrl>

#include <gtest/gtest.h>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/write.hpp>
#include <future>

using namespace Qt::StringLiterals;

namespace asio = boost::asio;

QByteArray packEnvelope(const QJsonDocument &document)
{
    return base64Encoding_URL_SAFE(
               zlibDeflate(document.toJson(QJsonDocument::Compact)).value_or(QByteArray()))
        .toLatin1();
}

HttpReply RelayClient::request(const char *method, const std::string &target, const QByteArray &body,
                               const QByteArray &contentType, const QByteArray &extraHeaders) const
{
    QByteArray head = method + (' ' + QByteArray::fromStdString(target)) +
                      " HTTP/1.1\r\nHost: 127.0.0.1:" + QByteArray::number(m_port) +
                      "\r\nConnection: close\r\nContent-Length: " + QByteArray::number(body.size()) + "\r\n" +
                      extraHeaders;
    if (!body.isEmpty() || qstrcmp(method, "POST") == 0)
        head += "Content-Type: " + contentType + "\r\n";
    if (!cookie.isEmpty())
        head += "Cookie: vandrel_relay=" + cookie + "\r\n";
    const QByteArray answer = raw(head + "\r\n" + body);
    const qsizetype headEnd = answer.indexOf("\r\n\r\n");
    if (!answer.startsWith("HTTP/1.1 ") || headEnd < 0)
        return {};
    const QList<QByteArray> lines = answer.left(headEnd).split('\n');
    HttpReply reply{lines.first().mid(9, 3).toInt(), {}, answer.mid(headEnd + 4)};
    for (const QByteArray &line : lines.mid(1)) {
        const qsizetype colon = line.indexOf(':');
        reply.headers.insert(line.left(colon).toLower(), line.mid(colon + 1).trimmed());
    }
    return reply;
}

HttpReply RelayClient::post(const std::string &target, const QJsonObject &body) const
{
    return request("POST", target, QJsonDocument(body).toJson(QJsonDocument::Compact));
}

HttpReply RelayClient::login(const QByteArray &token)
{
    const HttpReply reply = post("/api/login", {{u"token"_s, QString::fromLatin1(token)}});
    const QByteArray setCookie = reply.headers.value("set-cookie");
    if (reply.status == 200 && setCookie.startsWith("vandrel_relay="))
        cookie = setCookie.mid(14, setCookie.indexOf(';') - 14);
    return reply;
}

QString RelayClient::openSession() const
{
    return post("/api/session", {}).json().value(u"os_session"_s).toString();
}

HttpReply RelayClient::ask(const QString &computerId, const QJsonObject &request) const
{
    return post("/api/request", {{u"computer_id"_s, computerId}, {u"request"_s, request}});
}

HttpReply RelayClient::poll(const QString &computerId, const QStringList &sessions,
                            const std::optional<QJsonObject> &result) const
{
    QByteArray form = "computer_id=" + QUrl::toPercentEncoding(computerId) + "&os_sessions=" +
                      QUrl::toPercentEncoding(QString::fromLatin1(
                          packEnvelope(QJsonDocument(QJsonArray::fromStringList(sessions)))));
    if (result)
        form +=
            "&result=" + QUrl::toPercentEncoding(QString::fromLatin1(packEnvelope(QJsonDocument(*result))));
    return postForm("/result", form);
}

QJsonArray RelayClient::requests(const HttpReply &reply)
{
    return reply.json().value(u"requests"_s).toArray();
}

QByteArray RelayClient::raw(const QByteArray &bytes) const
{
    asio::io_context io;
    asio::ip::tcp::socket socket(io);
    boost::system::error_code error;
    socket.connect({asio::ip::make_address("127.0.0.1"), m_port}, error);
    asio::write(socket, asio::buffer(bytes.constData(), std::size_t(bytes.size())), error);
    // The relay may answer and close before taking everything; what it said is still to be read.
    error = {};
    QByteArray received;
    char chunk[4096];
    while (!error) {
        const std::size_t n = socket.read_some(asio::buffer(chunk), error);
        received.append(chunk, qsizetype(n));
    }
    return received;
}

RunningRelay::RunningRelay(const std::function<void(RelayConfig &)> &adjust)
    : m_token("relay-test-token-0123456789abcdefghijklmnop")
{
    QDir(m_dir.path()).mkpath(u"cloud"_s);
    writeFile(path(u"web/index.html"_s), "<!doctype html><title>placeholder page</title>");
    RelayConfig config;
    config.port = 0;
    config.cloudFolders = {path(u"cloud"_s)};
    config.stateDir = m_dir.filePath(u"state"_s);
    config.webRoot = m_dir.filePath(u"web"_s);
    config.sessionStaleAfter = std::chrono::milliseconds(1500);
    config.sweepInterval = std::chrono::milliseconds(100);
    if (adjust)
        adjust(config);
    m_server = std::make_unique<RelayServer>(m_io, config, m_token);
    if (!m_server->start())
        ADD_FAILURE() << "the relay did not start";
    m_thread = std::thread([this] { m_io.run(); });
}

RunningRelay::~RunningRelay()
{
    stop();
}

void RunningRelay::stop()
{
    if (!m_thread.joinable())
        return;
    asio::post(m_io, [this] {
        m_server->stop();
        m_io.stop();
    });
    m_thread.join();
}

std::unique_ptr<RelayClient> RunningRelay::browser() const
{
    auto client = std::make_unique<RelayClient>(port());
    EXPECT_EQ(client->login(m_token).status, 200);
    return client;
}

std::size_t RunningRelay::waitingCount(const QString &computerId)
{
    std::promise<std::size_t> count;
    asio::post(m_io, [&] { count.set_value(m_server->queues().waitingCount(computerId)); });
    return count.get_future().get();
}
