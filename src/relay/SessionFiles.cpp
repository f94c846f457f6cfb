#include "relay/SessionFiles.h"

#include "relay/NoFollowFolder.h"
#include "relay/RandomToken.h"
#include "relay/RelayLog.h"

#include <QDateTime>
#include <QJsonDocument>
#include <QJsonObject>

#include <vector>

namespace {

const QString kMarker = QStringLiteral("sessions_are_here.json");

// From the cloud folder down to the data folder, and on to the sessions folder: each opened without
// following links, since anyone who can write to the synced folder can plant one.
const QList<NoFollowFolder::Step> kDataFolder = {
    {QStringLiteral("Apps"), QStringLiteral("Apps folder")},
    {QStringLiteral("vandrel"), QStringLiteral("StorageRoot folder")},
    {QStringLiteral("data.vdldata"), QStringLiteral("data folder")},
};
const QList<NoFollowFolder::Step> kSessionsFolder =
    kDataFolder +
    QList<NoFollowFolder::Step>{{QStringLiteral("sessions"), QStringLiteral("sessions folder")}};

QByteArray dateFileContent()
{
    return QJsonDocument(
               QJsonObject{{QStringLiteral("date"), double(QDateTime::currentMSecsSinceEpoch()) / 1000.0}})
        .toJson();
}

} // namespace

SessionFiles::SessionFiles(QStringList cloudFolders, std::chrono::milliseconds staleAfter, int maxPerLogin)
    : m_folders(std::move(cloudFolders))
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
    for (const QString &folder : m_folders) {
        QString refusal;
        if (const std::optional<NoFollowFolder> data =
                NoFollowFolder::open(folder, kDataFolder, true, refusal)) {
            // The agent looks for the sessions folder beside the marker.
            NoFollowFolder::open(folder, kSessionsFolder, true, refusal);
            if (refusal.isEmpty())
                data->writeAtomically(kMarker, QStringLiteral("marker file"), dateFileContent(), refusal);
        }
        report(refusal);
    }
}

void SessionFiles::writeSessionFiles(const QString &sessionId) const
{
    for (const QString &folder : m_folders) {
        QString refusal;
        if (const std::optional<NoFollowFolder> sessions =
                NoFollowFolder::open(folder, kSessionsFolder, true, refusal))
            sessions->writeAtomically(sessionId + QStringLiteral(".json"), QStringLiteral("session file"),
                                      dateFileContent(), refusal);
        report(refusal);
    }
}

void SessionFiles::removeSessionFiles(const QString &sessionId) const
{
    for (const QString &folder : m_folders) {
        QString refusal;
        const std::optional<NoFollowFolder> sessions =
            NoFollowFolder::open(folder, kSessionsFolder, false, refusal);
        if (sessions && !sessions->remove(sessionId + QStringLiteral(".json")))
            refusal = QStringLiteral("a session file could not be deleted");
        report(refusal);
    }
}

void SessionFiles::report(const QString &refusal) const
{
    // A planted link stays until someone removes it; one line says so, not one per refresh.
    if (!refusal.isEmpty() && refusal != m_lastRefusal)
        qCWarning(lcRelay).noquote() << refusal;
    m_lastRefusal = refusal;
}
