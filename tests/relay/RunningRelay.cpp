#include "RunningRelay.h"

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>

#include <boost/asio/post.hpp>
#include <future>

RunningRelay::RunningRelay(const std::function<void(RelayConfig &)> &adjust)
    : m_token("relay-test-token-0123456789abcdefghijklmnop")
{
    QDir(m_dir.path()).mkpath(QStringLiteral("cloud"));
    QDir(m_dir.path()).mkpath(QStringLiteral("web"));
    QFile page(m_dir.filePath(QStringLiteral("web/index.html")));
    if (page.open(QIODevice::WriteOnly))
        page.write("<!doctype html><title>placeholder page</title>");
    RelayConfig config;
    config.port = 0;
    config.cloudFolders = {cloudFolder()};
    config.stateDir = m_dir.filePath(QStringLiteral("state"));
    config.webRoot = m_dir.filePath(QStringLiteral("web"));
    config.sessionStaleAfter = std::chrono::milliseconds(1500);
    config.sweepInterval = std::chrono::milliseconds(100);
    if (adjust)
        adjust(config);
    m_server = std::make_unique<RelayServer>(m_io, config, m_token);
    if (!m_server->start())
        ADD_FAILURE() << "the relay did not start";
    m_thread = std::thread([this] { m_io.run(); });
}

RunningRelay::~RunningRelay()
{
    stop();
}

void RunningRelay::stop()
{
    if (!m_thread.joinable())
        return;
    boost::asio::post(m_io, [this] {
        m_server->stop();
        m_io.stop();
    });
    m_thread.join();
}

std::unique_ptr<RelayClient> RunningRelay::browser() const
{
    auto client = std::make_unique<RelayClient>(port());
    EXPECT_TRUE(client->login(m_token));
    return client;
}

std::size_t RunningRelay::waitingCount(const QString &computerId)
{
    std::promise<std::size_t> count;
    boost::asio::post(m_io, [&] { count.set_value(m_server->queues().waitingCount(computerId)); });
    return count.get_future().get();
}
