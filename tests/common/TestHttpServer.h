#pragma once

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QString>
#include <QUrl>

#include <chrono>
#include <functional>
#include <memory>

// An HTTP/1.1 server on 127.0.0.1 for tests, standing in for the RelayServer and any other web service.
// It listens on a free port from construction to destruction, on a thread of its own, so it keeps
// answering while the test's main thread is blocked or busy. It records every request and answers each
// through a programmable handler. All members are safe to call from any thread.
//
// Connections are kept alive and may carry several requests, pipelined or not; each is answered in turn.
// A request head over 1 MB or a body over 64 MB is refused with 413 and the connection closed.
class TestHttpServer
{
public:
    struct Request
    {
        QByteArray method;
        QByteArray target;                                // as sent: path and query, still percent-encoded
        QByteArray path;                                  // target up to "?"
        QByteArray query;                                 // target after "?", empty without one
        QList<std::pair<QByteArray, QByteArray>> headers; // as sent, in order
        QByteArray body;
        // Decoded fields of the query and of a url-encoded or multipart/form-data body (body fields win).
        QMap<QString, QByteArray> form;
        // Serial number of the TCP connection the request came on, from 1.
        int connection = 0;

        // The first header of that name, compared without case; empty when absent.
        QByteArray header(const QByteArray &name) const;
        bool hasHeader(const QByteArray &name) const;
    };

    struct Reply
    {
        enum class Mode {
            Whole,     // status, headers and body at once
            Drip,      // status and headers at once, then one body byte per dripInterval
            Generated, // generatedSize bytes of "x", as fast as the client reads them
            Silent,    // reads the request and never answers; the connection stays open
            HangUp,    // closes the connection without a word
        };

        int status = 200;
        QList<std::pair<QByteArray, QByteArray>> headers; // sent after the status line, in order
        QByteArray body;
        Mode mode = Mode::Whole;
        std::chrono::milliseconds dripInterval{1000};
        qint64 generatedSize = 0;
        // Sends Content-Length. Without it the body ends when the server closes the connection.
        bool declareLength = true;

        static Reply text(int status, QByteArray body,
                          QByteArray contentType = QByteArrayLiteral("text/plain; charset=utf-8"));
        static Reply json(int status, QByteArray body);
        static Reply drip(QByteArray body, std::chrono::milliseconds interval = std::chrono::seconds(1));
        static Reply huge(qint64 size, bool declareLength = true);
        static Reply silent();
        static Reply hangUp();
    };

    // Runs on the server thread, once per request, in arrival order; keep it quick and non-blocking.
    using Handler = std::function<Reply(const Request &)>;

    // Listens at once; without a handler every request gets an empty 200. Aborts the test run when no
    // port can be had.
    explicit TestHttpServer(Handler handler = {});
    // Closes every connection (silent ones included) and stops the thread.
    ~TestHttpServer();
    TestHttpServer(const TestHttpServer &) = delete;
    TestHttpServer &operator=(const TestHttpServer &) = delete;

    quint16 port() const;
    // "http://127.0.0.1:<port>" plus the path.
    QUrl url(const QString &path = QStringLiteral("/")) const;

    // Applies to requests whose head has not been read yet.
    void setHandler(Handler handler);

    QList<Request> requests() const;
    int requestCount() const;
    // Client connections open right now.
    int openConnections() const;

    // Wait until the condition holds or the timeout passes; true if it holds. The calling thread's
    // events are processed meanwhile, so a test on the main thread can await its own completions too.
    bool waitForRequests(int count, std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;
    bool waitForOpenConnections(int count,
                                std::chrono::milliseconds timeout = std::chrono::seconds(10)) const;

private:
    struct Private;
    std::unique_ptr<Private> d;
};
