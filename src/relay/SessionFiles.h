#pragma once

#include <QString>
#include <QStringList>

#include <chrono>
#include <map>
#include <optional>

// The browser sessions and the files that make agents poll: one
// "<StorageRoot>/data.vdldata/sessions/<id>.json" per open session in every cloud folder, and the marker
// "data.vdldata/sessions_are_here.json" with a fresh "date". Files are replaced whole, and no symbolic link
// below a cloud folder is followed for a write or a delete. Not thread-safe: the reactor thread owns it.
class SessionFiles
{
public:
    using Clock = std::chrono::steady_clock;

    // `cloudFolders` are the synced folders themselves, not their StorageRoots.
    SessionFiles(QStringList cloudFolders, std::chrono::milliseconds staleAfter, int maxPerLogin);

    // Opens a session for the login and writes its files; the oldest of that login's sessions closes
    // beyond the limit.
    QString open(const QString &login, Clock::time_point now);
    // Rewrites the session's "date"; false when the login has no such session.
    bool alive(const QString &login, const QString &sessionId, Clock::time_point now);
    bool close(const QString &login, const QString &sessionId);
    void closeLogin(const QString &login);
    void closeAll();
    // Closes the sessions whose page has gone quiet.
    void closeStale(Clock::time_point now);
    // Writes the marker's "date" in every StorageRoot.
    void refreshMarkers() const;

    int openCount() const { return int(m_sessions.size()); }

private:
    struct Session
    {
        QString login;
        Clock::time_point lastAlive;
    };

    void writeSessionFiles(const QString &sessionId) const;
    void removeSessionFiles(const QString &sessionId) const;
    // Logs a refusal once, not again until something else happened.
    void report(const QString &refusal) const;

    QStringList m_folders;
    std::chrono::milliseconds m_staleAfter;
    int m_maxPerLogin;
    std::map<QString, Session> m_sessions;
    mutable QString m_lastRefusal;
};
