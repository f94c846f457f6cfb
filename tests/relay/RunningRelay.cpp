#include "RunningRelay.h"

#include "support/Encodings.h"

#include <QDir>
#include <QFile>
#include <QUrl>

#include <gtest/gtest.h>

#include <boost/asio/connect.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/beast/http.hpp>
#include <future>

using namespace Qt::StringLiterals;

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;

QByteArray packEnvelope(const QJsonDocument &document)
{
    return base64Encoding_URL_SAFE(
               zlibDeflate(document.toJson(QJsonDocument::Compact)).value_or(QByteArray()))
        .toLatin1();
}

HttpReply RelayClient::request(http::verb method, const std::string &target, const QByteArray &body,
                               const std::string &contentType,
                               const std::map<std::string, std::string> &headers)
{
    for (int attempt = 0; attempt < 2; ++attempt) {
        try {
            if (!m_stream || !m_stream->socket().is_open()) {
                m_stream.emplace(m_io);
                m_buffer.clear();
                m_stream->connect(asio::ip::tcp::endpoint(asio::ip::make_address("127.0.0.1"), m_port));
            }
            http::request<http::string_body> request(method, target, 11);
            request.set(http::field::host, "127.0.0.1:" + std::to_string(m_port));
            if (!body.isEmpty() || method == http::verb::post)
                request.set(http::field::content_type, contentType);
            if (!cookie.isEmpty())
                request.set(http::field::cookie, "vandrel_relay=" + cookie.toStdString());
            for (const auto &[name, value] : headers)
                request.set(name, value);
            request.body() = body.toStdString();
            request.prepare_payload();
            m_stream->expires_after(std::chrono::seconds(180));
            http::write(*m_stream, request);
            http::response_parser<http::string_body> parser;
            parser.body_limit(256 << 20);
            http::read(*m_stream, m_buffer, parser);
            HttpReply reply;
            reply.status = int(parser.get().result_int());
            reply.headers = parser.get().base();
            reply.body = QByteArray::fromStdString(parser.get().body());
            if (!parser.get().keep_alive())
                m_stream.reset();
            return reply;
        } catch (const boost::system::system_error &) {
            // The relay closed a kept-alive connection: try once more on a new one.
            m_stream.reset();
        }
    }
    return {};
}

HttpReply RelayClient::post(const std::string &target, const QJsonObject &body)
{
    return request(http::verb::post, target, QJsonDocument(body).toJson(QJsonDocument::Compact));
}

HttpReply RelayClient::login(const QByteArray &token)
{
    const HttpReply reply = post("/api/login", {{u"token"_s, QString::fromLatin1(token)}});
    const QByteArray setCookie = reply.header("set-cookie");
    if (reply.status == 200 && setCookie.startsWith("vandrel_relay="))
        cookie = setCookie.mid(14, setCookie.indexOf(';') - 14);
    return reply;
}

QString RelayClient::openSession()
{
    return post("/api/session", {}).json().value(u"os_session"_s).toString();
}

HttpReply RelayClient::ask(const QString &computerId, const QJsonObject &request)
{
    return post("/api/request", {{u"computer_id"_s, computerId}, {u"request"_s, request}});
}

HttpReply RelayClient::poll(const QString &computerId, const QStringList &sessions,
                            const std::optional<QJsonObject> &result)
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

QByteArray RelayClient::raw(const QByteArray &bytes)
{
    beast::tcp_stream stream(m_io);
    stream.connect(asio::ip::tcp::endpoint(asio::ip::make_address("127.0.0.1"), m_port));
    beast::error_code error;
    asio::write(stream, asio::buffer(bytes.constData(), std::size_t(bytes.size())), error);
    // The relay may answer and close before taking everything; what it said is still to be read.
    error = {};
    QByteArray received;
    char chunk[4096];
    while (!error) {
        const std::size_t n = stream.read_some(asio::buffer(chunk), error);
        received.append(chunk, qsizetype(n));
    }
    return received;
}

RunningRelay::RunningRelay(const std::function<void(RelayConfig &)> &adjust)
    : m_token("relay-test-token-0123456789abcdefghijklmnop")
{
    QDir(m_dir.path()).mkpath(u"cloud"_s);
    QDir(m_dir.path()).mkpath(u"web"_s);
    QFile page(m_dir.filePath(u"web/index.html"_s));
    if (page.open(QIODevice::WriteOnly))
        page.write("<!doctype html><title>placeholder page</title>");
    RelayConfig config;
    config.port = 0;
    config.cloudFolders = {cloudFolder()};
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
    boost::asio::post(m_io, [this] {
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
    boost::asio::post(m_io, [&] { count.set_value(m_server->queues().waitingCount(computerId)); });
    return count.get_future().get();
}
