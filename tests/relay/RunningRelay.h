#pragma once

#include "RelayClient.h"
#include "relay/RelayServer.h"

#include <QTemporaryDir>

#include <functional>
#include <memory>
#include <thread>

// A RelayServer on 127.0.0.1 on its own reactor thread, with a temporary cloud folder, state folder and a
// placeholder page, for the lifetime of the object.
class RunningRelay
{
public:
    explicit RunningRelay(const std::function<void(RelayConfig &)> &adjust = {});
    ~RunningRelay();

    quint16 port() const { return m_server->port(); }
    QString cloudFolder() const { return m_dir.filePath(QStringLiteral("cloud")); }
    QString storageRoot() const { return cloudFolder() + QStringLiteral("/Apps/vandrel"); }
    QString path(const QString &relative) const { return m_dir.filePath(relative); }
    QByteArray token() const { return m_token; }
    // A client logged in with the access token.
    std::unique_ptr<RelayClient> browser() const;
    // Requests waiting for the computer, read on the server's thread.
    std::size_t waitingCount(const QString &computerId);
    // Stops the server now (the destructor does it otherwise).
    void stop();

private:
    QTemporaryDir m_dir;
    QByteArray m_token;
    boost::asio::io_context m_io;
    std::unique_ptr<RelayServer> m_server;
    std::thread m_thread;
};
