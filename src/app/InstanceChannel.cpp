#include "app/InstanceChannel.h"

#include "app/AppLog.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QLocalSocket>
#include <QStandardPaths>
#include <QTimer>

namespace {

QByteArray line(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact) + '\n';
}

QJsonObject error(const QString &message)
{
    return {{QStringLiteral("error"), message}};
}

} // namespace

QString InstanceChannel::socketPath()
{
    QString runtime = QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation);
    if (runtime.isEmpty())
        runtime = QDir::tempPath();
    return runtime + QStringLiteral("/vandrel.socket");
}

std::optional<QJsonObject> InstanceChannel::handOver(const QString &command, const QStringList &arguments,
                                                     int timeoutMs)
{
    QLocalSocket socket;
    socket.connectToServer(socketPath());
    if (!socket.waitForConnected(2000))
        return std::nullopt;
    socket.write(line({{QStringLiteral("command"), command},
                       {QStringLiteral("arguments"), QJsonArray::fromStringList(arguments)}}));
    const QDeadlineTimer deadline(timeoutMs);
    QByteArray reply;
    while (!reply.contains('\n') && reply.size() <= kMaxRequestBytes) {
        if (socket.bytesAvailable() == 0 && !socket.waitForReadyRead(int(deadline.remainingTime())))
            break;
        reply += socket.readAll();
    }
    if (!reply.contains('\n'))
        return error(QStringLiteral("the running vandrel did not answer"));
    const QJsonDocument document = QJsonDocument::fromJson(reply.left(reply.indexOf('\n')));
    if (!document.isObject())
        return error(QStringLiteral("the running vandrel gave an unreadable answer"));
    return document.object();
}

InstanceChannel::InstanceChannel(QObject *parent)
    : QObject(parent)
{
    m_server.setSocketOptions(QLocalServer::UserAccessOption);
    connect(&m_server, &QLocalServer::newConnection, this, [this] {
        while (QLocalSocket *socket = m_server.nextPendingConnection())
            serve(socket);
    });
}

bool InstanceChannel::listen()
{
    const QString path = socketPath();
    if (m_server.listen(path))
        return true;
    if (m_server.serverError() != QAbstractSocket::AddressInUseError)
        return false;
    QLocalSocket probe;
    probe.connectToServer(path);
    if (probe.waitForConnected(2000))
        return false;
    QLocalServer::removeServer(path);
    return m_server.listen(path);
}

void InstanceChannel::serve(QLocalSocket *socket)
{
    // A client that never finishes its line is dropped, so it cannot hold the instance's attention.
    QTimer::singleShot(kRequestTimeoutMs, socket, [socket] { socket->abort(); });
    connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
    connect(socket, &QLocalSocket::readyRead, socket, [this, socket] {
        if (socket->property("answered").toBool())
            return;
        if (!socket->canReadLine()) {
            if (socket->bytesAvailable() > kMaxRequestBytes) {
                qCWarning(lcApp).noquote() << "handed-over request too long; connection dropped";
                socket->abort();
            }
            return;
        }
        socket->setProperty("answered", true);
        const QJsonDocument document = QJsonDocument::fromJson(socket->readLine(kMaxRequestBytes));
        const QJsonObject request = document.object();
        const QJsonValue arguments = request.value(QStringLiteral("arguments"));
        QJsonObject answer;
        if (!m_handler) {
            answer = error(QStringLiteral("not ready"));
        } else if (!document.isObject() || !request.value(QStringLiteral("command")).isString() ||
                   !arguments.isArray()) {
            qCWarning(lcApp).noquote() << "unreadable handed-over request ignored";
            answer = error(QStringLiteral("unreadable request"));
        } else {
            QStringList list;
            for (const QJsonValue &value : arguments.toArray())
                list << value.toString();
            answer = m_handler(request.value(QStringLiteral("command")).toString(), list);
        }
        socket->write(line(answer));
        socket->disconnectFromServer();
    });
}
