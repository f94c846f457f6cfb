#pragma once

#include <QJsonObject>
#include <QLocalServer>
#include <QObject>
#include <QStringList>

#include <functional>
#include <optional>

class QLocalSocket;

// The single running instance's door: a local socket in $XDG_RUNTIME_DIR. A later `vandrel` started with
// a URL or files hands them over and exits. One request per connection: a line of JSON
// {"command": ..., "arguments": [...]} answered by a line of JSON.
class InstanceChannel : public QObject
{
    Q_OBJECT

public:
    // Answers one handed-over command; runs on the instance's main thread.
    using Handler = std::function<QJsonObject(const QString &command, const QStringList &arguments)>;

    static constexpr qint64 kMaxRequestBytes = 1024 * 1024;
    static constexpr int kRequestTimeoutMs = 10000;

    static QString socketPath();

    // Hands a command to the running instance and returns its answer; nothing when no instance listens.
    // An instance that takes the connection but does not answer within `timeoutMs` gives {"error": ...}.
    static std::optional<QJsonObject> handOver(const QString &command, const QStringList &arguments,
                                               int timeoutMs = 30000);

    explicit InstanceChannel(QObject *parent = nullptr);
    void setHandler(Handler handler) { m_handler = std::move(handler); }

    // Becomes the running instance; false when another one already answers on the socket (or the socket
    // cannot be made). A socket left behind by an instance that died is replaced.
    bool listen();

private:
    void serve(QLocalSocket *socket);

    Handler m_handler;
    QLocalServer m_server;
};
