#include "AgentWithSession.h"

#include "common/Envelope.h"
#include "common/JsonRecord.h"
#include "platform/SettingsKeys.h"
#include "platform/UserDefaults.h"
#include "support/AesCipher.h"
#include "support/Encodings.h"
#include "utils/vd_SimpleUtils.h"

#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QThread>

#include <csignal>

using namespace std::chrono_literals;

FakeRelay::FakeRelay()
    : m_server([this](const TestHttpServer::Request &) {
        std::lock_guard lock(m_lock);
        if (m_misbehaviour)
            return *m_misbehaviour;
        const QJsonArray requests = m_queued.isEmpty() ? QJsonArray() : m_queued.takeFirst();
        return TestHttpServer::Reply::json(200,
                                           QJsonDocument(QJsonObject{{QStringLiteral("requests"), requests}})
                                               .toJson(QJsonDocument::Compact));
    })
{}

void FakeRelay::queueRequests(const QJsonArray &requests)
{
    std::lock_guard lock(m_lock);
    m_queued.append(requests);
}

void FakeRelay::setMisbehaviour(std::optional<TestHttpServer::Reply> reply)
{
    std::lock_guard lock(m_lock);
    m_misbehaviour = std::move(reply);
}

QList<FakeRelay::Poll> FakeRelay::polls() const
{
    QList<Poll> polls;
    for (const TestHttpServer::Request &request : m_server.requests()) {
        Poll poll{request.path, {}, {}, request.form};
        for (const QJsonValue &id :
             unpackEnvelope(QString::fromLatin1(request.form.value(QStringLiteral("os_sessions")))).array())
            poll.sessions << id.toString();
        if (request.form.contains(QStringLiteral("result")))
            poll.result =
                unpackEnvelope(QString::fromLatin1(request.form.value(QStringLiteral("result")))).object();
        polls << poll;
    }
    return polls;
}

std::optional<FakeRelay::Poll> FakeRelay::waitForPoll(const std::function<bool(const Poll &)> &condition,
                                                      std::chrono::milliseconds timeout) const
{
    QElapsedTimer clock;
    clock.start();
    do {
        for (const Poll &poll : polls()) {
            if (condition(poll))
                return poll;
        }
        QThread::msleep(50);
    } while (clock.elapsed() < timeout.count());
    return std::nullopt;
}

AgentProcess::AgentProcess(const TempHome &home)
    : m_logPath(home.filePath(QStringLiteral("agent.log")))
{
    // The agent indexes only its temporary home, not the whole machine.
    UserDefaults::setValue(SettingsKeys::IndexedRoots, QStringList{home.path()});
    // Under AddressSanitizer freed memory is held back for a while; a small hold keeps the memory
    // figures about the agent rather than the sanitizer.
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("ASAN_OPTIONS"), environment.value(QStringLiteral("ASAN_OPTIONS")) +
                                                           QStringLiteral(":quarantine_size_mb=8"));
    m_process.setProcessEnvironment(environment);
    m_process.setProcessChannelMode(QProcess::MergedChannels);
    m_process.setStandardOutputFile(m_logPath);
    m_process.start(QStringLiteral(VANDREL_BINARY), {QStringLiteral("--headless")});
    m_process.waitForStarted(10000);
}

AgentProcess::~AgentProcess()
{
    if (running()) {
        m_process.kill();
        m_process.waitForFinished(10000);
    }
}

int AgentProcess::stop(int signal)
{
    if (!running())
        return -1;
    ::kill(pid_t(m_process.processId()), signal);
    if (!m_process.waitForFinished(20000) || m_process.exitStatus() != QProcess::NormalExit)
        return -1;
    return m_process.exitCode();
}

qint64 AgentProcess::residentKb() const
{
    if (!running())
        return 0;
    for (const QByteArray &line :
         readFile(QStringLiteral("/proc/%1/status").arg(m_process.processId())).split('\n')) {
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').value(0).toLongLong();
    }
    return 0;
}

QString AgentProcess::log() const
{
    return QString::fromUtf8(readFile(m_logPath));
}

void AgentWithSession::SetUp()
{
    home.setEnvironment("VANDREL_RELAY_URL", relay.server().url(QString()).toString().toUtf8());
    root = home.root();
    home.addSession(QStringLiteral("web"));
    home.setPassword(QStringLiteral("pw"));
    prepareHome();
    agent = std::make_unique<AgentProcess>(home);
    const auto first = relay.waitForPoll([](const FakeRelay::Poll &) { return true; });
    ASSERT_TRUE(first) << agent->log().toStdString();
    computerId = QString::fromUtf8(first->form.value(QStringLiteral("computer_id")));
    m_key = computerId + QStringLiteral("___pw");
    hash = vd_SimpleUtils::sha256Hex(m_key);
}

void AgentWithSession::TearDown()
{
    agent->stop(SIGTERM);
}

std::optional<FakeRelay::Poll> AgentWithSession::send(QJsonObject request, bool withHash,
                                                      std::chrono::milliseconds wait)
{
    const QString marker = QString::number(++m_sent);
    request.insert(QStringLiteral("n"), marker);
    request.insert(QStringLiteral("os_session"), QStringLiteral("web"));
    if (withHash)
        request.insert(QStringLiteral("pword_hash"), hash);
    relay.queueRequests(QJsonArray{request});
    return relay.waitForPoll(
        [&](const FakeRelay::Poll &p) { return p.result && p.result->value(QStringLiteral("n")) == marker; },
        wait);
}

QJsonObject AgentWithSession::ask(QJsonObject request, bool withHash)
{
    const auto poll = send(std::move(request), withHash, 30s);
    return poll ? *poll->result : QJsonObject{{QStringLiteral("missing"), agent->log()}};
}

QJsonObject AgentWithSession::searchWith(const QString &proof)
{
    return ask(record({{"request_type", "search"}, {"search_dir", home.path()}, {"pword_hash", proof}}),
               false);
}

bool AgentWithSession::unanswered(QJsonObject request, bool withHash)
{
    return !send(std::move(request), withHash, 3s);
}

QJsonObject AgentWithSession::sealed(const QJsonObject &inner, const QString &cacheKey) const
{
    const QByteArray cipher =
        encryptWithString(QJsonDocument(inner).toJson(QJsonDocument::Compact), m_key).value_or(QByteArray());
    return record({{"request_type", "encrypted"},
                   {"os_session", "web"},
                   {"cache_key", cacheKey},
                   {"encrypted_request", base64Encoding_URL_SAFE(cipher)}});
}

std::optional<QByteArray> AgentWithSession::openedResult(const QString &cacheKey)
{
    const auto poll = relay.waitForPoll(
        [&](const FakeRelay::Poll &p) {
            return p.path == "/result_encrypted" &&
                   p.form.value(QStringLiteral("cache_key")) == cacheKey.toUtf8();
        },
        30s);
    if (!poll)
        return std::nullopt;
    const std::optional<QByteArray> cipher = dataWithBase64EncodedString_URL_SAFE(
        QString::fromLatin1(poll->form.value(QStringLiteral("result_encrypted"))));
    return cipher ? decryptWithString(*cipher, m_key) : std::nullopt;
}

QStringList AgentWithSession::itemPaths(const QJsonObject &result)
{
    QStringList paths;
    for (const QJsonValue &item : result.value(QStringLiteral("items")).toArray())
        paths << item[QStringLiteral("path")].toString();
    return paths;
}
