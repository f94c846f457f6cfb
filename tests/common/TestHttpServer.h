#pragma once

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QString>
#include <QUrl>

#include <chrono>
#include <functional>
#include <memory>

// An HTTP/1.1 server on 127.0.0.1 for tests, standing in for the RelayServer. It listens on a thread of its
// own from construction to destruction, so it keeps answering while the test's thread waits; it records
// every request and answers each through the handler. Kept-alive connections carry requests one after
// another. All members are safe to call from any thread.
class TestHttpServer
{
public:
    struct Request
    {
        QByteArray method;
        QByteArray path; // the target up to "?", still percent-encoded
        QList<std::pair<QByteArray, QByteArray>> headers;
        QByteArray body;
        // Fields of a url-encoded body, the only kind the agent posts.
        QMap<QString, QByteArray> form;

        // The first header of that name, compared without case; empty when absent.
        QByteArray header(const QByteArray &name) const;
    };

    struct Reply
    {
        enum class Mode {
            Whole,     // everything at once
            Drip,      // the head at once, then one body byte per dripInterval
            Generated, // generatedSize bytes of "x", as fast as the client reads them
            Silent,    // never answers; the connection stays open
            HangUp,    // closes the connection without a word
        };

        int status = 200;
        QByteArray contentType;
        QByteArray body;
        Mode mode = Mode::Whole;
        std::chrono::milliseconds dripInterval{0};
        qint64 generatedSize = 0;
        // Without Content-Length the body ends when the server closes the connection.
        bool declareLength = true;

        static Reply text(int status, QByteArray body, QByteArray type = "text/plain; charset=utf-8")
        {
            return {status, std::move(type), std::move(body)};
        }
        static Reply json(int status, QByteArray body)
        {
            return text(status, std::move(body), "application/json");
        }
        static Reply drip(QByteArray body, std::chrono::milliseconds interval)
        {
            return {200, "text/plain", std::move(body), Mode::Drip, interval};
        }
        static Reply huge(qint64 size, bool declareLength = true)
        {
            return {200, "application/octet-stream", {}, Mode::Generated, {}, size, declareLength};
        }
        static Reply silent() { return {.mode = Mode::Silent}; }
        static Reply hangUp() { return {.mode = Mode::HangUp}; }
    };

    // Runs on the server thread, once per request in arrival order; without one every answer is an empty 200.
    using Handler = std::function<Reply(const Request &)>;

    explicit TestHttpServer(Handler handler = {});
    ~TestHttpServer();
    TestHttpServer(const TestHttpServer &) = delete;
    TestHttpServer &operator=(const TestHttpServer &) = delete;

    // "http://127.0.0.1:<port>" plus the path.
    QUrl url(const QString &path = QStringLiteral("/")) const;

    QList<Request> requests() const;
    int requestCount() const;
    int openConnections() const;

    // Wait, processing this thread's events, until the condition holds or the timeout passes.
    bool waitForRequests(int count, std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
    bool waitForOpenConnections(int count,
                                std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;

    // The server's state, which its connections share.
    struct Private;

private:
    std::unique_ptr<Private> d;
};
