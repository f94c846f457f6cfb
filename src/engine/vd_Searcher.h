#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QJsonObject>
#include <QRunnable>
#include <QString>
#include <QThreadPool>

#include <atomic>
#include <functional>
#include <map>
#include <mutex>
#include <optional>

struct FSNError;
struct RelayForm;

// The request engine. The class side is the relay loop, the WebApp sessions and the user-activity clock;
// an instance is one request, run once on the operation queue.
class vd_Searcher : public QRunnable
{
public:
    // --- Sessions and user activity ---

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

    // --- The relay loop (main thread unless said otherwise) ---

    // Starts the poll (every second), the session expiry (every minute) and the hourly maintenance timers
    // on the main thread. Later calls do nothing.
    static void initializeThings();
    // The one queue every request runs on: at most 4 at once, searches first.
    static QThreadPool &opQ();
    // One poll per StorageRoot that holds a session; nothing for the others.
    static void postResultAndGetMoreRequestsTimer();
    // Posts the result (when any) and the StorageRoot's sessions to the relay and returns at once; the
    // reply's requests are queued from the connection's thread. Nothing is sent for a result marked
    // "dont_post", nor when the StorageRoot holds no session (the result is dropped). Safe from any thread.
    static void postResultAndGetMoreRequests(const std::optional<QJsonObject> &result,
                                             const QString &storageRoot,
                                             const std::optional<QByteArray> &rawData);
    // The relay's reply body: queues its "requests" and answers whether the body was a JSON object (else
    // the error, when asked for, says why). Runs on the connection's thread.
    static bool runRequestsFromReply(const QByteArray &body, std::optional<FSNError> *error = nullptr);
    // Queues one operation per request object, opening envelopes first so that a decrypted search gets the
    // search priority. Anything but an array queues nothing; elements that are not objects are skipped.
    static void runRequests(const QJsonValue &requests);
    // A user was seen within the last 60 s.
    static bool sActive(const QDateTime &now = QDateTime::currentDateTimeUtc());
    // "idle" while a user is being served, "active" otherwise: the words are inverted on purpose.
    static QString statusString(const QDateTime &now = QDateTime::currentDateTimeUtc());
    // The RelayServer's address without a trailing "/", or "" when none is configured.
    static QString relayBaseURL();
    // A request's overall deadline in milliseconds, from the settings.
    static int relayDeadlineMs();

    // --- Authentication (any thread; the password is read afresh on every call) ---

    // The key string, or none when the password store cannot be read (one log line per such episode):
    // the computer then stays closed, never open as if it had no password.
    static std::optional<QString> encryptionKey();

    // --- One request ---

    // The handlers by the wire "request_type", matched exactly. A handler writes its answer into the record
    // and may set raw output bytes on the operation; it never posts. A type with no handler is answered
    // with the record as it came.
    using Handler = std::function<void(vd_Searcher &operation, QJsonObject &request)>;
    using HandlerTable = std::map<QString, Handler>;
    // Replaces the whole table; the app sets it once at start, before any request runs.
    static void setHandlers(HandlerTable handlers);

    explicit vd_Searcher(const QJsonObject &request = {});

    std::optional<QJsonObject> theRequest() const;
    std::optional<QByteArray> outRawData() const;
    void setOutRawData(const std::optional<QByteArray> &data);

    // Resolves the StorageRoot, checks the password, runs the handler, stamps and posts the record, then
    // clears it. A request whose session is in no StorageRoot is dropped with a log line.
    void main();
    // Run by the queue: main, counted out of the waiting requests.
    void run() override;

    // Opens an "encrypted" envelope in place (see RequestAuth::decryptRequest).
    void decryptRequest();

private:
    static void checkForUserHungUp();
    // The hourly hook; nothing needs doing yet.
    static void maintenance();
    static QString encryptResult(const QJsonObject &result, const std::optional<QByteArray> &rawData);
    // The queue priority of a request: 8 for a search, 0 for everything else.
    static int queuePriority(const QJsonObject &request);

    void setTheRequest(const std::optional<QJsonObject> &request);
    // The StorageRoot whose sessions folder holds the request's "os_session", or none.
    std::optional<QString> getStorage_path() const;
    static std::optional<QString> getStorage_path(const QString &sessionId);
    bool passwordOK_OrRootInfo() const;
    // A failed search or envelope is answered with "auth_error"; any other request is dropped unanswered.
    // Answers beyond a few a second are dropped too (one log line a minute says how many): each answer
    // fetches more requests, so a relay without the password could otherwise keep the agent busy.
    void handleRequestIfWrongPassword(const QString &storageRoot);

    // Sends one post and returns at once; the reply is handed to runRequestsFromReply on the connection's
    // thread. At most a few posts are in flight: a poll beyond them is skipped, a result waits for a free
    // slot (up to the relay deadline), so that a relay answering every post with more work sets no pace.
    static void startRelayPost(const QString &url, const RelayForm &form);

    mutable std::mutex m_requestLock;
    std::optional<QJsonObject> m_theRequest; // guarded by m_requestLock
    // The size of the request's JSON text while it waits in the queue.
    qint64 m_queuedBytes = 0;
    mutable std::mutex m_rawDataLock;
    std::optional<QByteArray> m_outRawData; // guarded by m_rawDataLock
};
