#include "relay/RelayServer.h"

#include "relay/HttpConnection.h"
#include "relay/RelayLog.h"

#include <boost/asio/ip/address.hpp>

namespace asio = boost::asio;
using asio::ip::tcp;

RelayServer::RelayServer(asio::io_context &io, RelayConfig config, QByteArray accessToken)
    : m_io(io)
    , m_config(std::move(config))
    , m_acceptor(io)
    , m_sweepTimer(io)
    , m_acceptRetryTimer(io)
    , m_clouds(m_config.cloudFolders)
    , m_queues(m_config.maxWaitingPerComputer, m_config.maxRequestsPerReply)
    , m_logins(std::move(accessToken), m_config.maxLogins)
    , m_sessions(m_clouds.folders(), m_config.sessionStaleAfter, m_config.maxSessionsPerLogin)
{}

bool RelayServer::start()
{
    boost::system::error_code error;
    const asio::ip::address address = asio::ip::make_address(m_config.bindAddress.toStdString(), error);
    if (error) {
        qCCritical(lcRelay).noquote() << "not an IP address to bind to:" << m_config.bindAddress;
        return false;
    }
    const tcp::endpoint endpoint(address, m_config.port);
    m_acceptor.open(endpoint.protocol(), error);
    if (!error)
        m_acceptor.set_option(asio::socket_base::reuse_address(true), error);
    if (!error)
        m_acceptor.bind(endpoint, error);
    if (!error)
        m_acceptor.listen(asio::socket_base::max_listen_connections, error);
    if (error) {
        qCCritical(lcRelay).noquote() << QStringLiteral("cannot listen on %1 port %2: %3")
                                             .arg(m_config.bindAddress)
                                             .arg(m_config.port)
                                             .arg(QString::fromStdString(error.message()));
        return false;
    }
    m_port = m_acceptor.local_endpoint().port();
    m_sessions.refreshMarkers();
    m_lastMarkerRefresh = RequestQueues::Clock::now();
    accept();
    sweep();
    return true;
}

void RelayServer::stop()
{
    if (m_stopped)
        return;
    m_stopped = true;
    boost::system::error_code ignored;
    m_acceptor.close(ignored);
    m_sweepTimer.cancel();
    m_acceptRetryTimer.cancel();
    m_sessions.closeAll();
}

void RelayServer::accept()
{
    m_acceptor.async_accept([this](boost::system::error_code error, tcp::socket socket) {
        if (m_stopped)
            return;
        if (!error) {
            std::make_shared<HttpConnection>(std::move(socket), *this)->start();
            accept();
            return;
        }
        // Out of file descriptors or similar: wait a moment instead of spinning on the same error.
        static bool warned = false;
        if (!warned) {
            warned = true;
            qCWarning(lcRelay).noquote()
                << "accepting a connection failed:" << QString::fromStdString(error.message());
        }
        m_acceptRetryTimer.expires_after(std::chrono::milliseconds(100));
        m_acceptRetryTimer.async_wait([this](boost::system::error_code waitError) {
            if (!waitError && !m_stopped)
                accept();
        });
    });
}

void RelayServer::sweep()
{
    const auto now = RequestQueues::Clock::now();
    m_queues.expire(now);
    m_sessions.closeStale(now);
    if (now - m_lastMarkerRefresh >= m_config.markerRefresh) {
        m_sessions.refreshMarkers();
        m_lastMarkerRefresh = now;
    }
    m_sweepTimer.expires_after(m_config.sweepInterval);
    m_sweepTimer.async_wait([this](boost::system::error_code error) {
        if (!error && !m_stopped)
            sweep();
    });
}
