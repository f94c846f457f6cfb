#pragma once

#include <QByteArray>
#include <QString>

#include <chrono>
#include <list>
#include <optional>

// Browser logins: the access token traded for a cookie value. Not thread-safe: the reactor thread owns it.
class BrowserLogins
{
public:
    BrowserLogins(QByteArray accessToken, int maxLogins);

    // A new cookie value for the right token; none otherwise. Beyond the limit the oldest login ends
    // (its id is put in `ended` so its sessions can be closed).
    std::optional<QString> login(const QByteArray &token, std::optional<QString> *ended);
    bool isLoggedIn(const QString &cookie) const;
    void logout(const QString &cookie);

    // The value of our cookie in a Cookie header, "" when absent.
    static QString cookieFromHeader(const QByteArray &header);
    static QByteArray setCookieHeader(const QString &cookie);
    static QByteArray clearCookieHeader();

private:
    QByteArray m_token;
    int m_maxLogins;
    std::list<QString> m_cookies; // oldest first
};
