#include "RelayClient.h"

#include "support/Encodings.h"

#include <QJsonDocument>
#include <QUrl>

#include <boost/asio/connect.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/http.hpp>

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;

QJsonObject HttpReply::json() const
{
    return QJsonDocument::fromJson(body).object();
}

QByteArray HttpReply::header(const std::string &lowerName) const
{
    const auto found = headers.find(lowerName);
    return found == headers.end() ? QByteArray() : QByteArray::fromStdString(found->second);
}

QByteArray packEnvelope(const QJsonDocument &document)
{
    return base64Encoding_URL_SAFE(
               zlibDeflate(document.toJson(QJsonDocument::Compact)).value_or(QByteArray()))
        .toLatin1();
}

RelayClient::RelayClient(quint16 port)
    : m_port(port)
{}

void RelayClient::ensureConnected()
{
    if (m_stream && m_stream->socket().is_open())
        return;
    m_stream.emplace(m_io);
    m_buffer.clear();
    m_stream->connect(asio::ip::tcp::endpoint(asio::ip::make_address("127.0.0.1"), m_port));
}

HttpReply RelayClient::request(http::verb method, const std::string &target, const QByteArray &body,
                               const std::string &contentType,
                               const std::map<std::string, std::string> &headers)
{
    for (int attempt = 0; attempt < 2; ++attempt) {
        try {
            ensureConnected();
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
            for (const auto &field : parser.get()) {
                std::string name(field.name_string());
                std::transform(name.begin(), name.end(), name.begin(), ::tolower);
                reply.headers[name] = std::string(field.value());
            }
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

bool RelayClient::login(const QByteArray &token)
{
    const HttpReply reply = post("/api/login", {{QStringLiteral("token"), QString::fromLatin1(token)}});
    const QByteArray setCookie = reply.header("set-cookie");
    if (reply.status != 200 || !setCookie.startsWith("vandrel_relay="))
        return false;
    cookie = setCookie.mid(14, setCookie.indexOf(';') - 14);
    return true;
}

QString RelayClient::openSession()
{
    return post("/api/session", {}).json().value(QStringLiteral("os_session")).toString();
}

HttpReply RelayClient::ask(const QString &computerId, const QJsonObject &request)
{
    return post("/api/request",
                {{QStringLiteral("computer_id"), computerId}, {QStringLiteral("request"), request}});
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
    return request(http::verb::post, "/result", form, "application/x-www-form-urlencoded");
}

QJsonArray RelayClient::requests(const HttpReply &reply)
{
    return reply.json().value(QStringLiteral("requests")).toArray();
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
