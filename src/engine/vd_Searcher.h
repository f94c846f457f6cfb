#pragma once

#include <QDateTime>
#include <QJsonObject>
#include <QString>

#include <atomic>
#include <optional>

// The request engine. This part: the WebApp sessions of each StorageRoot and the user-activity clock.
class vd_Searcher
{
public:
    // The sessions of "<root>/data.vdldata/sessions": session id -> the file's JSON object (readFiles) or
    // {"session_file_url": its URL}. Direct children named "*.json" only, hidden ones skipped, a folder
    // counting like a file. None when there are no sessions. Reads names only unless readFiles is set, so
    // it is cheap enough to run every second.
    static std::optional<QJsonObject> get_sessions(const QString &storageRoot, bool readSessionFiles);

    // The sessions (listing only), or none. Finding any moves the activity clock to now, and announces
    // UserCameOnline when the clock was more than 20 s behind.
    static std::optional<QJsonObject>
    isUserActivelyUsingUs(const QString &storageRoot, const QDateTime &now = QDateTime::currentDateTimeUtc());

    // Deletes (not trashes) every session file whose "date" is more than 2000 s away from now, in either
    // direction; a missing or unreadable date counts as 1970. Deletion errors are ignored.
    static void eraseOldOSSessions(const QString &storageRoot,
                                   const QDateTime &now = QDateTime::currentDateTimeUtc());

    // The last moment a StorageRoot was found holding a session, in seconds since 2001-01-01 UTC; 0 at
    // start, so the first session found is announced.
    static std::atomic<double> gLastSessionActive;

    // Seconds since 2001-01-01 UTC, the clock's own scale.
    static double referenceSeconds(const QDateTime &date);
};
