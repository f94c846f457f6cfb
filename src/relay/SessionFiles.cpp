#include "relay/SessionFiles.h"

#include "relay/RandomToken.h"
#include "relay/RelayLog.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSaveFile>

#include <vector>

namespace {

const QString kSessionsFolder = QStringLiteral("data.vdldata/sessions");
const QString kMarker = QStringLiteral("data.vdldata/sessions_are_here.json");

void writeDateFile(const QString &path)
{
    const QJsonObject content{{QStringLiteral("date"), double(QDateTime::currentMSecsSinceEpoch()) / 1000.0}};
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(QJsonDocument(content).toJson()) < 0 || !file.commit())
        qCWarning(lcRelay).noquote() << "could not write a session or marker file:" << file.errorString();
}

} // namespace

SessionFiles::SessionFiles(QStringList storageRoots, std::chrono::milliseconds staleAfter, int maxPerLogin)
    : m_roots(std::move(storageRoots))
    , m_staleAfter(staleAfter)
    , m_maxPerLogin(maxPerLogin)
{}

QString SessionFiles::open(const QString &login, Clock::time_point now)
{
    std::optional<std::pair<QString, Clock::time_point>> oldest;
    int count = 0;
    for (const auto &[id, session] : m_sessions) {
        if (session.login != login)
            continue;
        ++count;
        if (!oldest || session.lastAlive < oldest->second)
            oldest = std::make_pair(id, session.lastAlive);
    }
    if (count >= m_maxPerLogin && oldest)
        close(login, oldest->first);
    const QString id = randomToken(24);
    m_sessions.emplace(id, Session{login, now});
    refreshMarkers();
    writeSessionFiles(id);
    return id;
}

bool SessionFiles::alive(const QString &login, const QString &sessionId, Clock::time_point now)
{
    const auto found = m_sessions.find(sessionId);
    if (found == m_sessions.end() || found->second.login != login)
        return false;
    found->second.lastAlive = now;
    writeSessionFiles(sessionId);
    return true;
}

bool SessionFiles::close(const QString &login, const QString &sessionId)
{
    const auto found = m_sessions.find(sessionId);
    if (found == m_sessions.end() || found->second.login != login)
        return false;
    m_sessions.erase(found);
    removeSessionFiles(sessionId);
    return true;
}

void SessionFiles::closeLogin(const QString &login)
{
    std::erase_if(m_sessions, [&](const auto &entry) {
        if (entry.second.login != login)
            return false;
        removeSessionFiles(entry.first);
        return true;
    });
}

void SessionFiles::closeAll()
{
    for (const auto &entry : m_sessions)
        removeSessionFiles(entry.first);
    m_sessions.clear();
}

void SessionFiles::closeStale(Clock::time_point now)
{
    std::erase_if(m_sessions, [&](const auto &entry) {
        if (now - entry.second.lastAlive <= m_staleAfter)
            return false;
        removeSessionFiles(entry.first);
        return true;
    });
}

void SessionFiles::refreshMarkers() const
{
    for (const QString &root : m_roots) {
        QDir().mkpath(root + u'/' + kSessionsFolder);
        writeDateFile(root + u'/' + kMarker);
    }
}

void SessionFiles::writeSessionFiles(const QString &sessionId) const
{
    for (const QString &root : m_roots) {
        const QString folder = root + u'/' + kSessionsFolder;
        QDir().mkpath(folder);
        writeDateFile(folder + u'/' + sessionId + QStringLiteral(".json"));
    }
}

void SessionFiles::removeSessionFiles(const QString &sessionId) const
{
    for (const QString &root : m_roots)
        QFile::remove(root + u'/' + kSessionsFolder + u'/' + sessionId + QStringLiteral(".json"));
}
