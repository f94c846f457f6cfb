#include "engine/UserActivityNotifier.h"
#include "engine/vd_Searcher.h"
#include "utils/vd_FileUtils.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QUrl>

#include <cmath>

namespace {

// A user who comes back after this long without any session is announced again.
constexpr double kCameOnlineAfterSeconds = 20.0;
// The WebApp refreshes its session's "date" well within this; older (or future) files are leftovers.
constexpr double kSessionExpirySeconds = 2000.0;

QString sessionsFolder(const QString &storageFolder)
{
    return storageFolder + QStringLiteral("/data.vdldata/sessions");
}

struct SessionEntry
{
    QString id;
    QString path;
};

// The session entries of a storage folder, by name only.
QList<SessionEntry> sessionEntries(const QString &storageFolder)
{
    // Without QDir::Hidden, names beginning with a dot are left out.
    QDirIterator children(sessionsFolder(storageFolder), {QStringLiteral("*.json")},
                          QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot | QDir::CaseSensitive);
    QList<SessionEntry> entries;
    while (children.hasNext()) {
        const QString path = children.next();
        entries.append({children.fileName().chopped(5), path});
    }
    return entries;
}

} // namespace

std::optional<QJsonObject> vd_Searcher::get_sessions(const QString &storageFolder, bool readSessionFiles)
{
    if (storageFolder.isEmpty())
        return std::nullopt;
    QJsonObject sessions;
    for (const SessionEntry &entry : sessionEntries(storageFolder)) {
        if (readSessionFiles)
            sessions.insert(entry.id, vd_FileUtils::readSmallJsonFile(entry.path));
        else
            sessions.insert(entry.id,
                            QJsonObject{{QStringLiteral("session_file_url"),
                                         QUrl::fromLocalFile(entry.path).toString(QUrl::FullyEncoded)}});
    }
    if (sessions.isEmpty())
        return std::nullopt;
    return sessions;
}

std::optional<QJsonObject> vd_Searcher::isUserActivelyUsingUs(const QString &storageFolder,
                                                              const QDateTime &now)
{
    std::optional<QJsonObject> sessions = get_sessions(storageFolder, false);
    if (!sessions)
        return std::nullopt;
    const double seconds = vd_FileUtils::JSONDate(now);
    const double previous = gLastSessionActive.exchange(seconds);
    if (seconds - previous > kCameOnlineAfterSeconds)
        Q_EMIT UserActivityNotifier::instance()->UserCameOnline();
    return sessions;
}

void vd_Searcher::eraseOldOSSessions(const QString &storageFolder, const QDateTime &now)
{
    if (storageFolder.isEmpty())
        return;
    const double seconds = vd_FileUtils::JSONDate(now);
    for (const SessionEntry &entry : sessionEntries(storageFolder)) {
        const QJsonObject session = vd_FileUtils::readSmallJsonFile(entry.path);
        const double date =
            vd_FileUtils::JSONDate(vd_FileUtils::dateFromJSON(session.value(QStringLiteral("date"))));
        if (std::fabs(seconds - date) <= kSessionExpirySeconds)
            continue;
        const QFileInfo info(entry.path);
        // A link goes as the link: following it could empty whatever folder it points at.
        if (info.isDir() && !info.isSymLink())
            QDir(entry.path).removeRecursively();
        else
            QFile::remove(entry.path);
    }
}

void vd_Searcher::checkForUserHungUp()
{
    for (const QString &storageFolder : vd_FileUtils::storageFoldersDropBoxGDriveEtc())
        eraseOldOSSessions(storageFolder, QDateTime::currentDateTimeUtc());
}
