#include "TestHttpServer.h"

#include <QCoreApplication>
#include <QHostAddress>
#include <QTcpServer>
#include <QTcpSocket>
#include <QThread>
#include <QTimer>

#include <mutex>

using Request = TestHttpServer::Request;
using Reply = TestHttpServer::Reply;

struct TestHttpServer::Private
{
    mutable std::mutex lock;
    Handler handler;
    QList<Request> requests; // guarded by lock
    int openConnections = 0; // guarded by lock
    QThread thread;
    QObject context;              // lives on thread
    QTcpServer *server = nullptr; // lives on thread
    quint16 port = 0;

    // Records the request and answers it, on the server thread (the handler is set before it starts).
    Reply take(const Request &request)
    {
        {
            std::lock_guard guard(lock);
            requests.append(request);
        }
        return handler ? handler(request) : Reply::text(200, {});
    }
    void countConnection(int delta)
    {
        std::lock_guard guard(lock);
        openConnections += delta;
    }

    bool waitFor(const std::function<bool()> &condition, std::chrono::milliseconds timeout) const
    {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        for (;;) {
            {
                std::lock_guard guard(lock);
                if (condition())
                    return true;
            }
            if (std::chrono::steady_clock::now() >= deadline)
                return false;
            if (QThread::currentThread()->eventDispatcher())
                QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
            QThread::msleep(5);
        }
    }
};

namespace {

constexpr qint64 kChunk = 64 * 1024;

QByteArray formDecode(QByteArray text)
{
    return QByteArray::fromPercentEncoding(text.replace('+', ' '));
}

void parseUrlEncoded(const QByteArray &text, QMap<QString, QByteArray> &form)
{
    for (const QByteArray &pair : text.split('&')) {
        const qsizetype equals = pair.indexOf('=');
        if (!pair.isEmpty())
            form.insert(QString::fromUtf8(formDecode(equals < 0 ? pair : pair.first(equals))),
                        equals < 0 ? QByteArray() : formDecode(pair.mid(equals + 1)));
    }
}

// One client connection on the server thread: reads requests one after another and answers each in turn.
// A child of its socket, so it goes when the socket does.
class Connection : public QObject
{
public:
    Connection(QTcpSocket *socket, TestHttpServer::Private *server)
        : QObject(socket)
        , m_socket(socket)
        , m_server(server)
    {
        m_server->countConnection(+1);
        connect(socket, &QTcpSocket::readyRead, this, [this] {
            m_buffer += m_socket->readAll();
            serveBuffered();
        });
        connect(socket, &QTcpSocket::bytesWritten, this, [this] { feed(false); });
        connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
        connect(&m_dripTimer, &QTimer::timeout, this, [this] { feed(true); });
    }
    ~Connection() override { m_server->countConnection(-1); }

private:
    void serveBuffered()
    {
        while (!m_busy) {
            const qsizetype headEnd = m_buffer.indexOf("\r\n\r\n");
            if (headEnd < 0)
                return;
            Request request;
            const QList<QByteArray> lines = m_buffer.first(headEnd).split('\n');
            const QList<QByteArray> requestLine = lines.first().trimmed().split(' ');
            request.method = requestLine.value(0);
            request.path = requestLine.value(1).split('?').first();
            for (const QByteArray &line : lines.mid(1)) {
                const qsizetype colon = line.indexOf(':');
                if (colon > 0)
                    request.headers.append({line.first(colon).trimmed(), line.mid(colon + 1).trimmed()});
            }
            const qint64 length = request.header("Content-Length").toLongLong();
            if (m_buffer.size() < headEnd + 4 + length)
                return;
            request.body = m_buffer.mid(headEnd + 4, length);
            m_buffer.remove(0, headEnd + 4 + length);
            if (request.header("Content-Type").toLower().startsWith("application/x-www-form-urlencoded"))
                parseUrlEncoded(request.body, request.form);
            answer(m_server->take(request));
        }
    }

    void answer(const Reply &reply)
    {
        m_busy = true;
        m_reply = reply;
        m_sent = 0;
        if (reply.mode == Reply::Mode::HangUp)
            return m_socket->abort();
        if (reply.mode == Reply::Mode::Silent)
            return;
        const qint64 length = reply.mode == Reply::Mode::Generated ? reply.generatedSize : reply.body.size();
        m_socket->write("HTTP/1.1 " + QByteArray::number(reply.status) +
                        (reply.status < 400 ? " OK" : " Error") + "\r\nContent-Type: " + reply.contentType +
                        "\r\n" +
                        (reply.declareLength ? "Content-Length: " + QByteArray::number(length)
                                             : QByteArray("Connection: close")) +
                        "\r\n\r\n");
        if (reply.mode == Reply::Mode::Drip)
            m_dripTimer.start(reply.dripInterval);
        else
            feed(false);
    }

    // Sends what the reply still owes: the whole body, one dripped byte per tick, or generated bytes as
    // fast as the client reads them.
    void feed(bool tick)
    {
        if (!m_busy)
            return;
        switch (m_reply.mode) {
        case Reply::Mode::Whole:
            m_socket->write(m_reply.body);
            break;
        case Reply::Mode::Drip:
            if (!tick)
                return;
            if (m_sent < m_reply.body.size())
                m_socket->write(m_reply.body.mid(m_sent++, 1));
            if (m_sent < m_reply.body.size())
                return;
            m_dripTimer.stop();
            break;
        case Reply::Mode::Generated:
            while (m_sent < m_reply.generatedSize && m_socket->bytesToWrite() < 16 * kChunk) {
                const qint64 chunk = std::min(kChunk, m_reply.generatedSize - m_sent);
                m_socket->write(QByteArray(chunk, 'x'));
                m_sent += chunk;
            }
            if (m_sent < m_reply.generatedSize)
                return;
            break;
        case Reply::Mode::Silent:
        case Reply::Mode::HangUp:
            return;
        }
        m_busy = false;
        if (!m_reply.declareLength)
            return m_socket->disconnectFromHost();
        serveBuffered();
    }

    QTcpSocket *m_socket;
    TestHttpServer::Private *const m_server;
    QByteArray m_buffer;
    bool m_busy = false;
    Reply m_reply;
    qint64 m_sent = 0;
    QTimer m_dripTimer;
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

TestHttpServer::TestHttpServer(Handler handler)
    : d(std::make_unique<Private>())
{
    d->handler = std::move(handler);
    d->context.moveToThread(&d->thread);
    d->thread.start();
    Private *p = d.get();
    QMetaObject::invokeMethod(
        &d->context,
        [p] {
            p->server = new QTcpServer;
            QObject::connect(p->server, &QTcpServer::newConnection, p->server, [p] {
                while (QTcpSocket *socket = p->server->nextPendingConnection())
                    new Connection(socket, p);
            });
            if (p->server->listen(QHostAddress::LocalHost, 0))
                p->port = p->server->serverPort();
        },
        Qt::BlockingQueuedConnection);
    if (d->port == 0)
        qFatal("TestHttpServer: cannot listen on 127.0.0.1");
}

TestHttpServer::~TestHttpServer()
{
    Private *p = d.get();
    QMetaObject::invokeMethod(
        &d->context, [p] { delete p->server; }, Qt::BlockingQueuedConnection);
    d->thread.quit();
    d->thread.wait();
}

QUrl TestHttpServer::url(const QString &path) const
{
    return QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(d->port).arg(path));
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
