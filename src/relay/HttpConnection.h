#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>

#include <array>
#include <boost/asio/steady_timer.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/core/tcp_stream.hpp>
#include <boost/beast/http.hpp>
#include <memory>
#include <optional>

class RelayServer;

// One client connection, agent or browser, kept alive across requests. Reads each request head first so
// that the route decides the body's limit and where it goes (memory, or a file for uploads); answers in
// order; holds agent polls and browser request calls open without blocking the reactor.
class HttpConnection : public std::enable_shared_from_this<HttpConnection>
{
public:
    HttpConnection(boost::asio::ip::tcp::socket socket, RelayServer &server);
    void start();

private:
    using StringRequest = boost::beast::http::request<boost::beast::http::string_body>;
    using StringResponse = boost::beast::http::response<boost::beast::http::string_body>;

    void readHead();
    void onHead();
    // Answers 413 and returns true when the declared body is over the limit.
    bool tooLarge(std::uint64_t limit);
    void readBody(std::size_t limit);
    void onRequest(const StringRequest &request);
    void startUpload();
    void onUploadRead(boost::system::error_code error);

    void handleAgentPost(const StringRequest &request);
    void handleApi(const StringRequest &request, const QString &path);
    // The result goes back on this connection only, so only the login that asked can read it.
    void handleBrowserRequest(const StringRequest &request);
    void handleDownload(const QString &target);
    void serveStatic(const QString &path);
    // The LinkService page for a GET of "/l/<link>"; needs no login, as the address holds all it shows.
    void serveLinkPage(std::string_view target);

    QString loginOf(const boost::beast::http::fields &fields) const;
    bool sameOrigin(const boost::beast::http::fields &fields) const;

    void replyJson(int status, const QJsonObject &body, QByteArray setCookie = {});
    void replyError(int status, const QByteArray &code, const QString &message);
    void replyRequests(const QJsonArray &requests);
    void sendString(StringResponse &&response);
    template<class Response> void send(std::shared_ptr<Response> response);
    // Ends the connection after the last answer.
    void close();
    void drain();

    boost::beast::tcp_stream m_stream;
    boost::beast::flat_buffer m_buffer;
    RelayServer &m_server;
    std::optional<boost::beast::http::request_parser<boost::beast::http::empty_body>> m_headParser;
    std::optional<boost::beast::http::request_parser<boost::beast::http::string_body>> m_bodyParser;
    std::optional<boost::beast::http::request_parser<boost::beast::http::file_body>> m_uploadParser;
    QString m_uploadPath;
    QString m_uploadName;
    int m_uploadCloud = 0;
    bool m_keepAlive = true;
    unsigned m_version = 11;
    // A held agent poll: the computer and the queue's id for it, until it is answered.
    boost::asio::steady_timer m_holdTimer;
    std::optional<std::pair<QString, quint64>> m_heldPoll;
    std::array<char, 4096> m_drainBuffer;
};
