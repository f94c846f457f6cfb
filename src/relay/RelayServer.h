#pragma once

#include "relay/BrowserLogins.h"
#include "relay/CloudFolders.h"
#include "relay/RelayConfig.h"
#include "relay/RequestQueues.h"
#include "relay/SessionFiles.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/steady_timer.hpp>

// vandrel-relay: the RelayServer agents poll and the browser side of the WebApp, on one Asio reactor. All
// state lives on the thread that runs the io_context; every connection is an HttpConnection on it.
class RelayServer
{
public:
    RelayServer(boost::asio::io_context &io, RelayConfig config, QByteArray accessToken);

    // Binds and starts accepting; false with a log line when the address cannot be had.
    bool start();
    quint16 port() const { return m_port; }
    // Stops accepting and closes every browser session, deleting its files so agents stop polling.
    // Call on the reactor thread.
    void stop();

    const RelayConfig &config() const { return m_config; }
    RequestQueues &queues() { return m_queues; }
    BrowserLogins &logins() { return m_logins; }
    SessionFiles &sessions() { return m_sessions; }
    const CloudFolders &cloudFolders() const { return m_clouds; }

private:
    void accept();
    void sweep();

    boost::asio::io_context &m_io;
    RelayConfig m_config;
    boost::asio::ip::tcp::acceptor m_acceptor;
    boost::asio::steady_timer m_sweepTimer;
    boost::asio::steady_timer m_acceptRetryTimer;
    quint16 m_port = 0;
    bool m_stopped = false;
    RequestQueues::Clock::time_point m_lastMarkerRefresh;
    CloudFolders m_clouds;
    RequestQueues m_queues;
    BrowserLogins m_logins;
    SessionFiles m_sessions;
};
