#pragma once

#include <QByteArray>
#include <QList>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

// A relay on 127.0.0.1 that answers every POST with one fixed HTTP response and counts the posts and those
// carrying a "result" field, each counted once its whole body has arrived.
class LoopbackRelay
{
public:
    explicit LoopbackRelay(QByteArray response)
        : m_reply(std::move(response))
    {
        m_listener = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::bind(m_listener, reinterpret_cast<sockaddr *>(&address), sizeof address);
        ::listen(m_listener, 64);
        socklen_t length = sizeof address;
        ::getsockname(m_listener, reinterpret_cast<sockaddr *>(&address), &length);
        m_port = ntohs(address.sin_port);
        m_acceptor = std::thread([this] { acceptLoop(); });
    }
    ~LoopbackRelay()
    {
        ::shutdown(m_listener, SHUT_RDWR);
        ::close(m_listener);
        m_acceptor.join();
        const std::lock_guard lock(m_lock);
        for (const int fd : m_open)
            ::shutdown(fd, SHUT_RDWR);
        for (std::thread &thread : m_connections)
            thread.join();
    }
    int port() const { return m_port; }
    int posts() const { return m_posts.load(); }
    int results() const { return m_results.load(); }

private:
    void acceptLoop()
    {
        for (;;) {
            const int fd = ::accept(m_listener, nullptr, nullptr);
            if (fd < 0)
                return;
            const std::lock_guard lock(m_lock);
            m_open.push_back(fd);
            m_connections.emplace_back([this, fd] { serve(fd); });
        }
    }
    void serve(int fd)
    {
        QByteArray buffer;
        std::vector<char> chunk(65536);
        for (;;) {
            const qsizetype headEnd = buffer.indexOf("\r\n\r\n");
            if (headEnd >= 0) {
                const QByteArray head = buffer.left(headEnd).toLower();
                const qsizetype at = head.indexOf("content-length:");
                const qsizetype length =
                    at < 0 ? 0 : head.mid(at + 15).split('\r').first().trimmed().toLongLong();
                if (buffer.size() >= headEnd + 4 + length) {
                    m_posts.fetch_add(1);
                    if (buffer.mid(headEnd + 4, length).contains("result="))
                        m_results.fetch_add(1);
                    buffer.remove(0, headEnd + 4 + length);
                    if (::send(fd, m_reply.constData(), size_t(m_reply.size()), MSG_NOSIGNAL) < 0)
                        break;
                    continue;
                }
            }
            const ssize_t got = ::read(fd, chunk.data(), chunk.size());
            if (got <= 0)
                break;
            buffer.append(chunk.data(), got);
        }
        ::close(fd);
    }

    const QByteArray m_reply;
    int m_listener = -1;
    int m_port = 0;
    std::atomic<int> m_posts{0};
    std::atomic<int> m_results{0};
    std::thread m_acceptor;
    std::mutex m_lock;
    std::vector<int> m_open;                // guarded by m_lock
    std::vector<std::thread> m_connections; // guarded by m_lock
};
