#include "FakeRelay.h"

#include "common/Envelope.h"
#include "platform/SettingsKeys.h"
#include "platform/UserDefaults.h"

#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QThread>

#include <csignal>

FakeRelay::FakeRelay()
    : m_server([this](const TestHttpServer::Request &request) { return answer(request); })
{}

QString FakeRelay::baseUrl() const
{
    return m_server.url(QString()).toString();
}

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

TestHttpServer::Reply FakeRelay::answer(const TestHttpServer::Request &)
{
    std::lock_guard lock(m_lock);
    if (m_misbehaviour)
        return *m_misbehaviour;
    const QJsonArray requests = m_queued.isEmpty() ? QJsonArray() : m_queued.takeFirst();
    return TestHttpServer::Reply::json(
        200,
        QJsonDocument(QJsonObject{{QStringLiteral("requests"), requests}}).toJson(QJsonDocument::Compact));
}

QList<FakeRelay::Poll> FakeRelay::polls() const
{
    QList<Poll> polls;
    for (const TestHttpServer::Request &request : m_server.requests()) {
        Poll poll{request.path,
                  QString::fromUtf8(request.form.value(QStringLiteral("computer_id"))),
                  {},
                  {},
                  request.form};
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
    QFile status(QStringLiteral("/proc/%1/status").arg(m_process.processId()));
    if (!running() || !status.open(QIODevice::ReadOnly))
        return 0;
    for (const QByteArray &line : status.readAll().split('\n')) {
        if (line.startsWith("VmRSS:"))
            return line.mid(6).trimmed().split(' ').value(0).toLongLong();
    }
    return 0;
}

QString AgentProcess::log() const
{
    QFile file(m_logPath);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}
