// Relay load: N simulated agents poll a real vandrel-relay on 127.0.0.1 once a second, each over one
// keep-alive connection, as `vandrel --headless` does per StorageRoot. N grows step by step until the 99th
// percentile of the poll answer time passes 50 ms; each step prints the relay's CPU share and resident memory
// per 1,000 agents. A second part measures how long a browser request takes to come back answered, with the
// relay's long poll on and off. Everything stays on loopback and is bounded in time.
//
//   relay_load_bench [--agents 1000,2500,...] [--seconds 10] [--budget 600] [--threads 1] [--relay PATH]

#include "support/Encodings.h"

#include <QCoreApplication>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QThread>

#include <unistd.h>

#include <algorithm>
#include <boost/asio.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <chrono>
#include <cstdio>
#include <deque>
#include <functional>
#include <future>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <thread>
#include <vector>

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;
using asio::ip::tcp;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

namespace {

struct Figures
{
    std::vector<double> pollMs;
    std::vector<double> roundTripMs;
    long errors = 0;
    long late = 0; // a tick found the previous poll still unanswered
    void clear() { *this = Figures(); }
};

double percentile(std::vector<double> values, double fraction)
{
    if (values.empty())
        return 0;
    std::sort(values.begin(), values.end());
    const auto index = std::size_t(std::max(0.0, std::ceil(fraction * double(values.size())) - 1));
    return values[std::min(index, values.size() - 1)];
}

std::string pack(const QJsonDocument &document)
{
    return base64Encoding_URL_SAFE(
               zlibDeflate(document.toJson(QJsonDocument::Compact)).value_or(QByteArray()))
        .toStdString();
}

std::string formField(const std::string &value)
{
    return QByteArray::fromStdString(value).toPercentEncoding().toStdString();
}

// One agent: a poll a second on one connection; requests it receives are answered at once with a result post.
class SimulatedAgent : public std::enable_shared_from_this<SimulatedAgent>
{
public:
    SimulatedAgent(asio::io_context &io, tcp::endpoint relay, std::string computerId, Figures &figures)
        : m_stream(io)
        , m_timer(io)
        , m_relay(relay)
        , m_computerId(std::move(computerId))
        , m_figures(figures)
    {
        // The poll never changes: it is put into HTTP once, and every tick writes the same bytes.
        http::request<http::string_body> poll(http::verb::post, "/result", 11);
        poll.set(http::field::host, "127.0.0.1");
        poll.set(http::field::content_type, "application/x-www-form-urlencoded");
        poll.body() = "computer_id=" + formField(m_computerId) +
                      "&os_sessions=" + formField(pack(QJsonDocument(QJsonArray{QStringLiteral("bench")})));
        poll.prepare_payload();
        std::ostringstream text;
        text << poll;
        m_pollBytes = text.str();
    }

    void start(Clock::duration phase)
    {
        m_next = Clock::now() + phase;
        m_stream.async_connect(m_relay, [self = shared_from_this()](beast::error_code error) {
            if (error) {
                ++self->m_figures.errors;
                return;
            }
            self->schedule();
        });
    }

    void stop()
    {
        m_stopped = true;
        m_timer.cancel();
        beast::error_code ignored;
        m_stream.socket().close(ignored);
    }

private:
    void schedule()
    {
        m_timer.expires_at(m_next);
        m_timer.async_wait([self = shared_from_this()](beast::error_code error) {
            if (error || self->m_stopped)
                return;
            self->m_next += 1s;
            if (self->m_busy) {
                // A real agent would open a second connection; this one polls as soon as the first ends.
                ++self->m_figures.late;
                self->m_owed = true;
            } else
                self->sendPoll();
            self->schedule();
        });
    }

    void sendPoll()
    {
        m_busy = true;
        m_sent = Clock::now();
        asio::async_write(m_stream, asio::buffer(m_pollBytes),
                          [self = shared_from_this()](beast::error_code error, std::size_t) {
                              if (error)
                                  return self->fail();
                              self->readReply(true);
                          });
    }

    void sendResult(std::string body)
    {
        m_busy = true;
        m_request = {http::verb::post, "/result", 11};
        m_request.set(http::field::host, "127.0.0.1");
        m_request.set(http::field::content_type, "application/x-www-form-urlencoded");
        m_request.body() = std::move(body);
        m_request.prepare_payload();
        http::async_write(m_stream, m_request,
                          [self = shared_from_this()](beast::error_code error, std::size_t) {
                              if (error)
                                  return self->fail();
                              self->readReply(false);
                          });
    }

    void readReply(bool poll)
    {
        m_response = {};
        http::async_read(m_stream, m_buffer, m_response,
                         [self = shared_from_this(), poll](beast::error_code error, std::size_t) {
                             if (error)
                                 return self->fail();
                             self->onReply(poll);
                         });
    }

    void onReply(bool poll)
    {
        if (poll)
            m_figures.pollMs.push_back(
                std::chrono::duration<double, std::milli>(Clock::now() - m_sent).count());
        // Most answers are empty: skipping their JSON parse lets the generator keep up.
        const QJsonArray requests =
            m_response.body() == R"({"requests":[]})"
                ? QJsonArray()
                : QJsonDocument::fromJson(QByteArray::fromStdString(m_response.body()))
                      .object()
                      .value("requests")
                      .toArray();
        for (const QJsonValue &request : requests) {
            QJsonObject result = request.toObject();
            result.insert(QStringLiteral("message"), QStringLiteral("done"));
            m_results.push_back("computer_id=" + formField(m_computerId) +
                                "&result=" + formField(pack(QJsonDocument(result))));
        }
        m_busy = false;
        if (m_stopped)
            return;
        if (!m_results.empty()) {
            std::string next = std::move(m_results.front());
            m_results.pop_front();
            sendResult(std::move(next));
        } else if (m_owed) {
            m_owed = false;
            sendPoll();
        }
    }

    void fail()
    {
        m_busy = false;
        if (!m_stopped)
            ++m_figures.errors;
    }

    beast::tcp_stream m_stream;
    asio::steady_timer m_timer;
    tcp::endpoint m_relay;
    std::string m_computerId;
    Figures &m_figures;
    std::string m_pollBytes;
    beast::flat_buffer m_buffer;
    http::request<http::string_body> m_request;
    http::response<http::string_body> m_response;
    std::deque<std::string> m_results;
    Clock::time_point m_next;
    Clock::time_point m_sent;
    bool m_busy = false;
    bool m_owed = false;
    bool m_stopped = false;
};

// A browser asking random computers, one request at a time per connection, measuring the answered round trip.
class SimulatedBrowser : public std::enable_shared_from_this<SimulatedBrowser>
{
public:
    SimulatedBrowser(asio::io_context &io, tcp::endpoint relay, std::string cookie, int computers,
                     Figures &figures)
        : m_stream(io)
        , m_timer(io)
        , m_relay(relay)
        , m_cookie(std::move(cookie))
        , m_computers(computers)
        , m_figures(figures)
    {}

    void start()
    {
        m_stream.async_connect(m_relay, [self = shared_from_this()](beast::error_code error) {
            if (!error)
                self->ask();
        });
    }
    void stop()
    {
        m_stopped = true;
        m_timer.cancel();
        beast::error_code ignored;
        m_stream.socket().close(ignored);
    }

private:
    void ask()
    {
        if (m_stopped)
            return;
        const QJsonObject body{
            {QStringLiteral("computer_id"), QStringLiteral("agent-%1").arg(m_random() % m_computers)},
            {QStringLiteral("request"),
             QJsonObject{{QStringLiteral("request_type"), QStringLiteral("search")},
                         {QStringLiteral("lifetime"), 10}}}};
        m_request = {http::verb::post, "/api/request", 11};
        m_request.set(http::field::host, "127.0.0.1");
        m_request.set(http::field::cookie, "vandrel_relay=" + m_cookie);
        m_request.set(http::field::content_type, "application/json");
        m_request.body() = QJsonDocument(body).toJson(QJsonDocument::Compact).toStdString();
        m_request.prepare_payload();
        m_sent = Clock::now();
        http::async_write(
            m_stream, m_request, [self = shared_from_this()](beast::error_code error, std::size_t) {
                if (error)
                    return;
                self->m_response = {};
                http::async_read(
                    self->m_stream, self->m_buffer, self->m_response,
                    [self](beast::error_code readError, std::size_t) {
                        if (readError)
                            return;
                        if (self->m_response.result_int() == 200)
                            self->m_figures.roundTripMs.push_back(
                                std::chrono::duration<double, std::milli>(Clock::now() - self->m_sent)
                                    .count());
                        else
                            ++self->m_figures.errors;
                        // About five requests a second per browser connection.
                        self->m_timer.expires_after(std::chrono::milliseconds(100 + self->m_random() % 200));
                        self->m_timer.async_wait([self](beast::error_code waitError) {
                            if (!waitError)
                                self->ask();
                        });
                    });
            });
    }

    beast::tcp_stream m_stream;
    asio::steady_timer m_timer;
    tcp::endpoint m_relay;
    std::string m_cookie;
    int m_computers;
    Figures &m_figures;
    std::mt19937 m_random{42};
    beast::flat_buffer m_buffer;
    http::request<http::string_body> m_request;
    http::response<http::string_body> m_response;
    Clock::time_point m_sent;
    bool m_stopped = false;
};

// The agents spread over several reactor threads, each owning its agents and figures, so that the generator
// gets its share of a busy machine and is not what limits the count.
class AgentPool
{
public:
    explicit AgentPool(int threads)
    {
        for (int i = 0; i < threads; ++i) {
            auto shard = std::make_unique<Shard>();
            shard->thread = std::thread([io = &shard->io] { io->run(); });
            m_shards.push_back(std::move(shard));
        }
    }
    ~AgentPool()
    {
        onEach([](Shard &shard) {
            for (auto &agent : shard.agents)
                agent->stop();
        });
        for (auto &shard : m_shards) {
            shard->guard.reset();
            shard->io.stop();
            shard->thread.join();
        }
    }

    int size() const { return m_size; }
    void grow(tcp::endpoint relay, int target)
    {
        for (; m_size < target; ++m_size) {
            Shard &shard = *m_shards[std::size_t(m_size) % m_shards.size()];
            const auto phase = std::chrono::microseconds(m_random() % 1000000);
            asio::post(shard.io, [&shard, relay, phase, id = "agent-" + std::to_string(m_size)] {
                shard.agents.push_back(std::make_shared<SimulatedAgent>(shard.io, relay, id, shard.figures));
                shard.agents.back()->start(phase);
            });
        }
    }
    void clear()
    {
        onEach([](Shard &shard) { shard.figures.clear(); });
    }
    Figures collect()
    {
        Figures all;
        onEach([&all](Shard &shard) {
            all.pollMs.insert(all.pollMs.end(), shard.figures.pollMs.begin(), shard.figures.pollMs.end());
            all.errors += shard.figures.errors;
            all.late += shard.figures.late;
        });
        return all;
    }

private:
    struct Shard
    {
        asio::io_context io{1};
        asio::executor_work_guard<asio::io_context::executor_type> guard = asio::make_work_guard(io);
        Figures figures;
        std::vector<std::shared_ptr<SimulatedAgent>> agents;
        std::thread thread;
    };

    // Runs the function on each shard's thread in turn and waits for it.
    void onEach(const std::function<void(Shard &)> &function)
    {
        for (auto &shard : m_shards) {
            std::promise<void> done;
            asio::post(shard->io, [&] {
                function(*shard);
                done.set_value();
            });
            done.get_future().wait();
        }
    }

    std::vector<std::unique_ptr<Shard>> m_shards;
    std::mt19937 m_random{7};
    int m_size = 0;
};

// vandrel-relay in a temporary state and cloud folder, with its CPU time and memory read from /proc.
class RelayUnderTest
{
public:
    RelayUnderTest(const QString &binary, int holdMs)
    {
        m_process.setProcessChannelMode(QProcess::SeparateChannels);
        m_process.setStandardErrorFile(QProcess::nullDevice());
        m_process.start(binary, {QStringLiteral("--port"), QStringLiteral("0"), QStringLiteral("--state-dir"),
                                 m_dir.filePath(QStringLiteral("state")), QStringLiteral("--cloud-folder"),
                                 m_dir.path(), QStringLiteral("--long-poll-ms"), QString::number(holdMs)});
        QString line;
        while (line.isEmpty() && m_process.waitForReadyRead(30000))
            line = QString::fromUtf8(m_process.readLine()).trimmed();
        const auto match = QRegularExpression(QStringLiteral(":(\\d+)/#token=(\\S+)$")).match(line);
        if (match.hasMatch()) {
            port = quint16(match.captured(1).toUInt());
            token = match.captured(2).toStdString();
        }
    }
    ~RelayUnderTest()
    {
        m_process.terminate();
        if (!m_process.waitForFinished(10000))
            m_process.kill();
        m_process.waitForFinished(5000);
    }

    double cpuSeconds() const
    {
        QFile stat(QStringLiteral("/proc/%1/stat").arg(m_process.processId()));
        if (!stat.open(QIODevice::ReadOnly))
            return 0;
        const QByteArray text = stat.readAll();
        const QList<QByteArray> fields = text.mid(text.lastIndexOf(')') + 2).split(' ');
        return double(fields.value(11).toLongLong() + fields.value(12).toLongLong()) /
               double(::sysconf(_SC_CLK_TCK));
    }
    double residentMb() const
    {
        QFile status(QStringLiteral("/proc/%1/status").arg(m_process.processId()));
        if (!status.open(QIODevice::ReadOnly))
            return 0;
        for (const QByteArray &line : status.readAll().split('\n')) {
            if (line.startsWith("VmRSS:"))
                return line.mid(6).trimmed().split(' ').value(0).toDouble() / 1024.0;
        }
        return 0;
    }

    quint16 port = 0;
    std::string token;

private:
    QTemporaryDir m_dir;
    QProcess m_process;
};

std::string login(asio::io_context &io, tcp::endpoint relay, const std::string &token)
{
    beast::tcp_stream stream(io);
    stream.connect(relay);
    http::request<http::string_body> request{http::verb::post, "/api/login", 11};
    request.set(http::field::host, "127.0.0.1");
    request.set(http::field::content_type, "application/json");
    request.body() = "{\"token\":\"" + token + "\"}";
    request.prepare_payload();
    http::write(stream, request);
    beast::flat_buffer buffer;
    http::response<http::string_body> response;
    http::read(stream, buffer, response);
    const std::string cookie(response[http::field::set_cookie]);
    return cookie.substr(14, cookie.find(';') - 14);
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    std::vector<int> steps{1000, 2500, 5000, 7500, 10000, 12500, 15000, 17500};
    int seconds = 10;
    int budget = 600;
    int threads = 1;
    QString binary = QStringLiteral(VANDREL_RELAY_BINARY);
    const QStringList arguments = app.arguments();
    for (int i = 1; i + 1 < arguments.size(); i += 2) {
        if (arguments[i] == QStringLiteral("--agents")) {
            steps.clear();
            for (const QString &n : arguments[i + 1].split(u','))
                steps.push_back(n.toInt());
        } else if (arguments[i] == QStringLiteral("--seconds")) {
            seconds = arguments[i + 1].toInt();
        } else if (arguments[i] == QStringLiteral("--budget")) {
            budget = arguments[i + 1].toInt();
        } else if (arguments[i] == QStringLiteral("--threads")) {
            threads = std::max(1, arguments[i + 1].toInt());
        } else if (arguments[i] == QStringLiteral("--relay")) {
            binary = arguments[i + 1];
        }
    }
    const auto deadline = Clock::now() + std::chrono::seconds(budget);
    std::printf(
        "relay load: agents poll once a second over keep-alive, loopback only; the load generator\n"
        "runs on the same machine (%ld cores, shared with other work) on %d threads, so figures are a\n"
        "lower bound.\n\n",
        ::sysconf(_SC_NPROCESSORS_ONLN), threads);

    asio::io_context io(1);
    int largestHeld = 0;
    {
        RelayUnderTest relay(binary, 0);
        if (relay.port == 0) {
            std::fprintf(stderr, "relay_load_bench: vandrel-relay did not start\n");
            return 1;
        }
        const tcp::endpoint endpoint(asio::ip::make_address("127.0.0.1"), relay.port);
        const double idleMb = relay.residentMb();
        std::printf("answer time of a poll with nothing waiting (relay's long poll off), %d s a step\n",
                    seconds);
        std::printf("%8s %9s %9s %9s %7s %6s %9s %9s %11s %10s\n", "agents", "polls/s", "p50 ms", "p99 ms",
                    "late", "errors", "relay CPU", "us/poll", "CPU/1k ag.", "MB/1k ag.");
        AgentPool pool(threads);
        for (const int target : steps) {
            if (Clock::now() + std::chrono::seconds(seconds + 5) > deadline)
                break;
            pool.grow(endpoint, target);
            std::this_thread::sleep_for(3s); // connections and the first polls settle
            pool.clear();
            const double cpuBefore = relay.cpuSeconds();
            std::this_thread::sleep_for(std::chrono::seconds(seconds));
            const Figures figures = pool.collect();
            const double cpuShare = (relay.cpuSeconds() - cpuBefore) / seconds;
            const double p99 = percentile(figures.pollMs, 0.99);
            const double mb = relay.residentMb();
            const double polls = double(figures.pollMs.size());
            std::printf("%8d %9.0f %9.2f %9.2f %7ld %6ld %8.0f%% %9.1f %10.1f%% %10.2f\n", target,
                        polls / seconds, percentile(figures.pollMs, 0.5), p99, figures.late, figures.errors,
                        cpuShare * 100, polls > 0 ? cpuShare * seconds / polls * 1e6 : 0.0,
                        cpuShare * 100 * 1000 / target, (mb - idleMb) * 1000 / target);
            std::fflush(stdout);
            if (p99 > 50 || figures.errors > target / 100)
                break;
            largestHeld = target;
        }
    }
    std::printf("\nlargest step held with p99 <= 50 ms: %d agents\n\n", largestHeld);

    std::printf("browser request answered through the relay by 1000 agents (10 browser connections):\n");
    std::printf("%12s %9s %9s %9s %7s\n", "long poll", "answers", "p50 ms", "p99 ms", "errors");
    for (const int hold : {1000, 0}) {
        if (Clock::now() + 20s > deadline)
            break;
        io.restart();
        RelayUnderTest relay(binary, hold);
        const tcp::endpoint endpoint(asio::ip::make_address("127.0.0.1"), relay.port);
        Figures figures;
        std::vector<std::shared_ptr<SimulatedAgent>> agents;
        std::mt19937 random(11);
        for (int i = 0; i < 1000; ++i) {
            agents.push_back(
                std::make_shared<SimulatedAgent>(io, endpoint, "agent-" + std::to_string(i), figures));
            agents.back()->start(std::chrono::microseconds(random() % 1000000));
        }
        io.run_for(3s);
        const std::string cookie = login(io, endpoint, relay.token);
        std::vector<std::shared_ptr<SimulatedBrowser>> browsers;
        for (int i = 0; i < 10; ++i) {
            browsers.push_back(std::make_shared<SimulatedBrowser>(io, endpoint, cookie, 1000, figures));
            browsers.back()->start();
        }
        io.run_for(std::chrono::seconds(seconds));
        std::printf("%9d ms %9zu %9.1f %9.1f %7ld\n", hold, figures.roundTripMs.size(),
                    percentile(figures.roundTripMs, 0.5), percentile(figures.roundTripMs, 0.99),
                    figures.errors);
        for (auto &browser : browsers)
            browser->stop();
        for (auto &agent : agents)
            agent->stop();
        io.run_for(500ms);
    }
    return 0;
}
