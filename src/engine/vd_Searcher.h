#pragma once

#include <QDateTime>
#include <QJsonObject>
#include <QString>

#include <atomic>
#include <optional>

// The request engine's class side.
class vd_Searcher
{
public:
    // --- WebApp sessions and user activity ---
    // A session is a file "<session id>.json" directly inside "<storage folder>/data.vdldata/sessions",
    // written by the WebApp; the agent polls a storage folder only while it holds one.

    // The sessions of a storage folder: session id -> the file's JSON object (readSessionFiles) or
    // {"session_file_url": its file URL}. None when there are none, or for "". Names "*.json" (exactly
    // that case) count, folders too; hidden names and anything below do not. Without readSessionFiles it
    // reads the folder's names only, cheap enough for every second.
    static std::optional<QJsonObject> get_sessions(const QString &storageFolder, bool readSessionFiles);

    // The sessions of the folder by name, or none. Finding one after more than 20 seconds without any
    // anywhere emits UserActivityNotifier::UserCameOnline (once at start-up, as the clock starts at 0), and
    // sets the activity clock to `now`.
    static std::optional<QJsonObject>
    isUserActivelyUsingUs(const QString &storageFolder,
                          const QDateTime &now = QDateTime::currentDateTimeUtc());

    // Deletes (does not trash: they are the WebApp's short-lived records) every session file whose "date" is
    // more than 2000 seconds from `now` in either direction; a file without a readable "date" counts as
    // 1970. A session folder is deleted with its contents; a link is deleted as the link. Errors are ignored
    // and retried on the next call.
    static void eraseOldOSSessions(const QString &storageFolder,
                                   const QDateTime &now = QDateTime::currentDateTimeUtc());

    // eraseOldOSSessions for every storage folder, in their order.
    static void checkForUserHungUp();

    // Seconds since 1970 at which a session was last found; 0 until then.
    static inline std::atomic<double> gLastSessionActive{0};
};
