// What a relay that does not know the password can cost the agent: the real `vandrel --headless` in a
// temporary home polls a loopback relay that answers every post with 1000 searches carrying a wrong
// password hash. Prints the agent's peak resident memory, its CPU seconds and the posts it made over a fixed
// time.
// Usage: bench_flood [SECONDS] [VANDREL_BINARY]   (default 20 s and the binary of this build)
#include "support/ls_Keychain.h"
#include "utils/vd_FileUtils.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>
#include <QTextStream>
#include <QThread>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

namespace {

void writeFile(const QString &path, const QByteArray &content)
{
    QDir().mkpath(path.section(u'/', 0, -2));
    QFile file(path);
    if (file.open(QIODevice::WriteOnly))
        file.write(content);
}

QByteArray floodReply()
{
    QByteArray requests;
    for (int i = 0; i < 1000; ++i) {
        if (i > 0)
            requests += ',';
        requests += R"({"request_type":"search","os_session":"web","search_dir":"/","pword_hash":")" +
                    QByteArray(64, '0') + R"(","n":")" + QByteArray::number(i) + "\"}";
    }
    const QByteArray body = "{\"requests\":[" + requests + "]}";
    return "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " +
           QByteArray::number(body.size()) + "\r\n\r\n" + body;
}

// Answers every POST with the flood; counts posts and those carrying a result.
class FloodRelay
{
public:
    FloodRelay()
        : m_reply(floodReply())
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
    ~FloodRelay()
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

// A /proc/<pid>/status figure in kB.
qint64 statusKb(qint64 pid, const QByteArray &field)
{
    QFile file(QStringLiteral("/proc/%1/status").arg(pid));
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    for (const QByteArray &line : file.readAll().split('\n')) {
        if (line.startsWith(field + ':'))
            return line.mid(field.size() + 1).trimmed().split(' ').first().toLongLong();
    }
    return 0;
}

double cpuSeconds(qint64 pid)
{
    QFile file(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!file.open(QIODevice::ReadOnly))
        return 0;
    const QByteArray stat = file.readAll();
    // Fields after the command name, which may hold spaces: utime and stime are the 12th and 13th.
    const QList<QByteArray> fields = stat.mid(stat.lastIndexOf(')') + 2).split(' ');
    return double(fields.value(11).toLongLong() + fields.value(12).toLongLong()) /
           double(sysconf(_SC_CLK_TCK));
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const int seconds = argc > 1 ? std::max(1, atoi(argv[1])) : 20;
    const QString binary = argc > 2 ? QString::fromLocal8Bit(argv[2]) : QStringLiteral(VANDREL_BINARY);
    QTemporaryDir home;
    qputenv("HOME", QFile::encodeName(home.path()));
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(home.filePath(QStringLiteral(".config"))));
    qputenv("XDG_DATA_HOME", QFile::encodeName(home.filePath(QStringLiteral(".local/share"))));
    qputenv("XDG_CACHE_HOME", QFile::encodeName(home.filePath(QStringLiteral(".cache"))));
    qputenv("VANDREL_KEYCHAIN", "file");
    FloodRelay relay;
    qputenv("VANDREL_RELAY_URL", QStringLiteral("http://127.0.0.1:%1").arg(relay.port()).toUtf8());
    const QString box = home.filePath(QStringLiteral("Dropbox/Apps/vandrel"));
    writeFile(box + QStringLiteral("/data.vdldata/sessions_are_here.json"), "{}");
    writeFile(box + QStringLiteral("/data.vdldata/sessions/web.json"),
              QStringLiteral("{\"date\": %1}")
                  .arg(vd_FileUtils::JSONDate(QDateTime::currentDateTimeUtc()), 0, 'f', 3)
                  .toUtf8());
    ls_Keychain::setString(QStringLiteral("the right one"), vd_FileUtils::keyForComputerPassword());
    // Only the home folder is indexed, so that indexing the machine does not count as flood cost.
    writeFile(home.filePath(QStringLiteral(".config/vandrel/vandrel.conf")),
              "[General]\nIndexedRoots=" + QFile::encodeName(home.path()) + "\n");

    QProcess agent;
    agent.setStandardOutputFile(QProcess::nullDevice());
    agent.setStandardErrorFile(QProcess::nullDevice());
    agent.start(binary, {QStringLiteral("--headless")});
    if (!agent.waitForStarted(10000)) {
        QTextStream(stderr) << "cannot start " << binary << "\n";
        return 1;
    }
    const qint64 pid = agent.processId();
    qint64 peakKb = 0;
    for (int tenth = 0; tenth < seconds * 10 && agent.state() == QProcess::Running; ++tenth) {
        QThread::msleep(100);
        peakKb = std::max(peakKb, statusKb(pid, "VmHWM"));
    }
    const double cpu = cpuSeconds(pid);
    const bool alive = agent.state() == QProcess::Running;
    agent.kill();
    agent.waitForFinished(10000);
    QTextStream(stdout) << "wrong-hash flood, 1000 searches per reply, " << seconds << " s: peak RSS "
                        << peakKb / 1024 << " MB, CPU " << QString::number(cpu, 'f', 1) << " s ("
                        << QString::number(100 * cpu / seconds, 'f', 0) << " % of a core), posts "
                        << relay.posts() << " (" << relay.results() << " with a result), agent "
                        << (alive ? "alive" : "DIED") << "\n";
    return 0;
}
