#include "TestHttpServer.h"

#include <QCoreApplication>
#include <QHostAddress>
#include <QTcpServer>
#include <QTcpSocket>
#include <QThread>
#include <QTimer>

#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>

namespace {

using Request = TestHttpServer::Request;
using Reply = TestHttpServer::Reply;

constexpr qsizetype kMaxHeadBytes = 1024 * 1024;
constexpr qint64 kMaxBodyBytes = 64 * 1024 * 1024;
constexpr qint64 kGeneratedChunk = 64 * 1024;
constexpr qint64 kMaxQueuedOutput = 1024 * 1024;

QByteArray reasonPhrase(int status)
{
    switch (status) {
    case 200:
        return "OK";
    case 201:
        return "Created";
    case 204:
        return "No Content";
    case 301:
        return "Moved Permanently";
    case 302:
        return "Found";
    case 400:
        return "Bad Request";
    case 401:
        return "Unauthorized";
    case 403:
        return "Forbidden";
    case 404:
        return "Not Found";
    case 413:
        return "Content Too Large";
    case 500:
        return "Internal Server Error";
    case 501:
        return "Not Implemented";
    case 503:
        return "Service Unavailable";
    default:
        return "Status";
    }
}

QByteArray formDecode(QByteArray text)
{
    text.replace('+', ' ');
    return QByteArray::fromPercentEncoding(text);
}

void parseUrlEncoded(const QByteArray &text, QMap<QString, QByteArray> &form)
{
    for (const QByteArray &pair : text.split('&')) {
        if (pair.isEmpty())
            continue;
        const qsizetype equals = pair.indexOf('=');
        const QByteArray key = equals < 0 ? pair : pair.left(equals);
        const QByteArray value = equals < 0 ? QByteArray() : pair.mid(equals + 1);
        form.insert(QString::fromUtf8(formDecode(key)), formDecode(value));
    }
}

// The value of a parameter such as boundary=... or name="..." in a header value; empty when absent.
QByteArray headerParameter(const QByteArray &headerValue, const QByteArray &name)
{
    for (QByteArray part : headerValue.split(';')) {
        part = part.trimmed();
        if (!part.toLower().startsWith(name.toLower() + '='))
            continue;
        QByteArray value = part.mid(name.size() + 1);
        if (value.size() >= 2 && value.startsWith('"') && value.endsWith('"'))
            value = value.mid(1, value.size() - 2);
        return value;
    }
    return {};
}

void parseMultipart(const QByteArray &body, const QByteArray &boundary, QMap<QString, QByteArray> &form)
{
    if (boundary.isEmpty())
        return;
    // With a line break in front, every delimiter, the first included, reads "\r\n--boundary".
    const QByteArray text = "\r\n" + body;
    const QByteArray delimiter = "\r\n--" + boundary;
    qsizetype at = text.indexOf(delimiter);
    while (at >= 0) {
        const qsizetype partStart = at + delimiter.size();
        if (text.mid(partStart, 2) == "--")
            return;
        const qsizetype headEnd = text.indexOf("\r\n\r\n", partStart);
        if (headEnd < 0)
            return;
        const qsizetype next = text.indexOf(delimiter, headEnd + 4);
        if (next < 0)
            return;
        QByteArray name;
        for (const QByteArray &line : text.mid(partStart, headEnd - partStart).split('\n')) {
            const QByteArray trimmed = line.trimmed();
            if (trimmed.toLower().startsWith("content-disposition:"))
                name = headerParameter(trimmed.mid(trimmed.indexOf(':') + 1), "name");
        }
        form.insert(QString::fromUtf8(name), text.mid(headEnd + 4, next - headEnd - 4));
        at = next;
    }
}

} // namespace

struct TestHttpServer::Private
{
    mutable std::mutex lock;
    mutable std::condition_variable changed;
    Handler handler;          // guarded by lock
    QList<Request> requests;  // guarded by lock
    int openConnections = 0;  // guarded by lock
    int connectionSerial = 0; // server thread only

    QThread thread;
    QObject *context = nullptr;   // lives on thread
    QTcpServer *server = nullptr; // lives on thread
    quint16 port = 0;

    // Records the request and picks its answer; server thread.
    Reply take(const Request &request)
    {
        Handler current;
        {
            std::lock_guard guard(lock);
            requests.append(request);
            current = handler;
        }
        changed.notify_all();
        return current ? current(request) : Reply::text(200, {});
    }

    void connectionCountChanged(int delta)
    {
        {
            std::lock_guard guard(lock);
            openConnections += delta;
        }
        changed.notify_all();
    }

    bool waitFor(const std::function<bool()> &condition, std::chrono::milliseconds timeout) const
    {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        std::unique_lock guard(lock);
        while (!condition()) {
            if (std::chrono::steady_clock::now() >= deadline)
                return false;
            if (QThread::currentThread()->eventDispatcher()) {
                guard.unlock();
                QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
                guard.lock();
                if (condition())
                    break;
            }
            changed.wait_for(guard, std::chrono::milliseconds(5));
        }
        return true;
    }
};

namespace {

// One client connection on the server thread: reads requests one after another and answers each.
class ClientConnection : public QObject
{
public:
    // take records a request and gives its answer; countChanged follows the open connections.
    ClientConnection(QTcpSocket *socket, int serial, std::function<Reply(const Request &)> take,
                     std::function<void(int)> countChanged, QObject *parent)
        : QObject(parent)
        , m_socket(socket)
        , m_serial(serial)
        , m_take(std::move(take))
        , m_countChanged(std::move(countChanged))
    {
        m_socket->setParent(this);
        m_countChanged(+1);
        connect(m_socket, &QTcpSocket::readyRead, this, [this] {
            m_buffer += m_socket->readAll();
            processBuffer();
        });
        connect(m_socket, &QTcpSocket::bytesWritten, this, [this] { feedGenerated(); });
        connect(m_socket, &QTcpSocket::disconnected, this, [this] {
            closed();
            deleteLater();
        });
        connect(&m_dripTimer, &QTimer::timeout, this, [this] { drip(); });
    }

    ~ClientConnection() override
    {
        m_socket->disconnect(this);
        closed();
    }

private:
    void closed()
    {
        if (std::exchange(m_counted, false))
            m_countChanged(-1);
        m_dripTimer.stop();
        m_closing = true;
    }

    void processBuffer()
    {
        while (!m_busy && !m_closing) {
            const qsizetype headEnd = m_buffer.indexOf("\r\n\r\n");
            if (headEnd < 0) {
                if (m_buffer.size() > kMaxHeadBytes)
                    refuse(413);
                return;
            }
            Request request;
            request.connection = m_serial;
            const QList<QByteArray> lines = m_buffer.left(headEnd).split('\n');
            const QList<QByteArray> requestLine = lines.first().trimmed().split(' ');
            if (requestLine.size() != 3)
                return refuse(400);
            request.method = requestLine[0];
            request.target = requestLine[1];
            const qsizetype question = request.target.indexOf('?');
            request.path = question < 0 ? request.target : request.target.left(question);
            request.query = question < 0 ? QByteArray() : request.target.mid(question + 1);
            for (qsizetype i = 1; i < lines.size(); ++i) {
                const QByteArray line = lines[i].trimmed();
                const qsizetype colon = line.indexOf(':');
                if (colon <= 0)
                    return refuse(400);
                request.headers.append({line.left(colon).trimmed(), line.mid(colon + 1).trimmed()});
            }
            if (request.header("Transfer-Encoding").toLower().contains("chunked"))
                return refuse(501);
            qint64 length = 0;
            if (request.hasHeader("Content-Length")) {
                bool ok = false;
                length = request.header("Content-Length").toLongLong(&ok);
                if (!ok || length < 0)
                    return refuse(400);
                if (length > kMaxBodyBytes)
                    return refuse(413);
            }
            if (m_buffer.size() < headEnd + 4 + length)
                return;
            request.body = m_buffer.mid(headEnd + 4, length);
            m_buffer.remove(0, headEnd + 4 + length);

            parseUrlEncoded(request.query, request.form);
            const QByteArray contentType = request.header("Content-Type");
            if (contentType.toLower().startsWith("application/x-www-form-urlencoded"))
                parseUrlEncoded(request.body, request.form);
            else if (contentType.toLower().startsWith("multipart/form-data"))
                parseMultipart(request.body, headerParameter(contentType, "boundary"), request.form);

            answer(m_take(request));
        }
    }

    void answer(const Reply &reply)
    {
        switch (reply.mode) {
        case Reply::Mode::Whole:
            writeHead(reply, reply.body.size());
            m_socket->write(reply.body);
            if (!reply.declareLength)
                close();
            return;
        case Reply::Mode::Drip:
            writeHead(reply, reply.body.size());
            m_busy = true;
            m_dripBody = reply.body;
            m_dripSent = 0;
            m_closeAfterReply = !reply.declareLength;
            m_dripTimer.start(reply.dripInterval);
            return;
        case Reply::Mode::Generated:
            writeHead(reply, reply.generatedSize);
            m_busy = true;
            m_generatedLeft = reply.generatedSize;
            m_closeAfterReply = !reply.declareLength;
            feedGenerated();
            return;
        case Reply::Mode::Silent:
            m_busy = true;
            return;
        case Reply::Mode::HangUp:
            m_closing = true;
            m_socket->abort();
            return;
        }
    }

    void writeHead(const Reply &reply, qint64 length)
    {
        QByteArray head =
            "HTTP/1.1 " + QByteArray::number(reply.status) + ' ' + reasonPhrase(reply.status) + "\r\n";
        bool namesLength = false;
        for (const auto &[name, value] : reply.headers) {
            namesLength = namesLength || name.compare("Content-Length", Qt::CaseInsensitive) == 0;
            head += name + ": " + value + "\r\n";
        }
        if (!reply.declareLength)
            head += "Connection: close\r\n";
        else if (!namesLength)
            head += "Content-Length: " + QByteArray::number(length) + "\r\n";
        m_socket->write(head + "\r\n");
    }

    void drip()
    {
        if (m_dripSent < m_dripBody.size()) {
            m_socket->write(m_dripBody.mid(m_dripSent, 1));
            ++m_dripSent;
        }
        if (m_dripSent >= m_dripBody.size()) {
            m_dripTimer.stop();
            replyDone();
        }
    }

    void feedGenerated()
    {
        if (m_generatedLeft <= 0)
            return;
        while (m_generatedLeft > 0 && m_socket->bytesToWrite() < kMaxQueuedOutput) {
            const qint64 chunk = std::min(kGeneratedChunk, m_generatedLeft);
            m_socket->write(QByteArray(chunk, 'x'));
            m_generatedLeft -= chunk;
        }
        if (m_generatedLeft == 0)
            replyDone();
    }

    void replyDone()
    {
        m_busy = false;
        if (m_closeAfterReply)
            close();
        else
            processBuffer();
    }

    void refuse(int status)
    {
        writeHead(Reply::text(status, {}), 0);
        close();
    }

    void close()
    {
        m_closing = true;
        m_socket->disconnectFromHost();
    }

    QTcpSocket *m_socket;
    const int m_serial;
    const std::function<Reply(const Request &)> m_take;
    const std::function<void(int)> m_countChanged;
    QByteArray m_buffer;
    bool m_counted = true;
    bool m_busy = false;
    bool m_closing = false;
    bool m_closeAfterReply = false;
    QTimer m_dripTimer;
    QByteArray m_dripBody;
    qsizetype m_dripSent = 0;
    qint64 m_generatedLeft = 0;
};

} // namespace

QByteArray TestHttpServer::Request::header(const QByteArray &name) const
{
    for (const auto &[key, value] : headers) {
        if (key.compare(name, Qt::CaseInsensitive) == 0)
            return value;
    }
    return {};
}

bool TestHttpServer::Request::hasHeader(const QByteArray &name) const
{
    return std::any_of(headers.cbegin(), headers.cend(), [&](const auto &header) {
        return header.first.compare(name, Qt::CaseInsensitive) == 0;
    });
}

TestHttpServer::Reply TestHttpServer::Reply::text(int status, QByteArray body, QByteArray contentType)
{
    Reply reply;
    reply.status = status;
    reply.headers.append({"Content-Type", std::move(contentType)});
    reply.body = std::move(body);
    return reply;
}

TestHttpServer::Reply TestHttpServer::Reply::json(int status, QByteArray body)
{
    return text(status, std::move(body), "application/json");
}

TestHttpServer::Reply TestHttpServer::Reply::drip(QByteArray body, std::chrono::milliseconds interval)
{
    Reply reply = text(200, std::move(body));
    reply.mode = Mode::Drip;
    reply.dripInterval = interval;
    return reply;
}

TestHttpServer::Reply TestHttpServer::Reply::huge(qint64 size, bool declareLength)
{
    Reply reply = text(200, {}, "application/octet-stream");
    reply.mode = Mode::Generated;
    reply.generatedSize = size;
    reply.declareLength = declareLength;
    return reply;
}

TestHttpServer::Reply TestHttpServer::Reply::silent()
{
    Reply reply;
    reply.mode = Mode::Silent;
    return reply;
}

TestHttpServer::Reply TestHttpServer::Reply::hangUp()
{
    Reply reply;
    reply.mode = Mode::HangUp;
    return reply;
}

TestHttpServer::TestHttpServer(Handler handler)
    : d(std::make_unique<Private>())
{
    d->handler = std::move(handler);
    d->thread.setObjectName(QStringLiteral("TestHttpServer"));
    d->context = new QObject;
    d->context->moveToThread(&d->thread);
    d->thread.start();
    Private *p = d.get();
    QMetaObject::invokeMethod(
        d->context,
        [p] {
            p->server = new QTcpServer(p->context);
            QObject::connect(p->server, &QTcpServer::newConnection, p->server, [p] {
                while (QTcpSocket *socket = p->server->nextPendingConnection())
                    new ClientConnection(
                        socket, ++p->connectionSerial,
                        [p](const Request &request) { return p->take(request); },
                        [p](int delta) { p->connectionCountChanged(delta); }, p->server);
            });
            if (p->server->listen(QHostAddress::LocalHost, 0))
                p->port = p->server->serverPort();
        },
        Qt::BlockingQueuedConnection);
    if (d->port == 0) {
        std::fprintf(stderr, "TestHttpServer: cannot listen on 127.0.0.1\n");
        std::abort();
    }
}

TestHttpServer::~TestHttpServer()
{
    Private *p = d.get();
    QMetaObject::invokeMethod(
        d->context,
        [p] {
            delete p->server;
            p->server = nullptr;
        },
        Qt::BlockingQueuedConnection);
    d->thread.quit();
    d->thread.wait();
    delete d->context;
}

quint16 TestHttpServer::port() const
{
    return d->port;
}

QUrl TestHttpServer::url(const QString &path) const
{
    return QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(d->port).arg(path));
}

void TestHttpServer::setHandler(Handler handler)
{
    std::lock_guard guard(d->lock);
    d->handler = std::move(handler);
}

QList<TestHttpServer::Request> TestHttpServer::requests() const
{
    std::lock_guard guard(d->lock);
    return d->requests;
}

int TestHttpServer::requestCount() const
{
    std::lock_guard guard(d->lock);
    return int(d->requests.size());
}

int TestHttpServer::openConnections() const
{
    std::lock_guard guard(d->lock);
    return d->openConnections;
}

bool TestHttpServer::waitForRequests(int count, std::chrono::milliseconds timeout) const
{
    return d->waitFor([&] { return d->requests.size() >= count; }, timeout);
}

bool TestHttpServer::waitForOpenConnections(int count, std::chrono::milliseconds timeout) const
{
    return d->waitFor([&] { return d->openConnections == count; }, timeout);
}
