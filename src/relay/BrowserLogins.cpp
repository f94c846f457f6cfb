#include "relay/BrowserLogins.h"

#include "relay/RandomToken.h"

#include <QList>

#include <openssl/crypto.h>

#include <algorithm>

namespace {
constexpr char kCookieName[] = "vandrel_relay";
}

BrowserLogins::BrowserLogins(QByteArray accessToken, int maxLogins)
    : m_token(std::move(accessToken))
    , m_maxLogins(maxLogins)
{}

std::optional<QString> BrowserLogins::login(const QByteArray &token, std::optional<QString> *ended)
{
    if (m_token.isEmpty() || token.size() != m_token.size() ||
        CRYPTO_memcmp(token.constData(), m_token.constData(), std::size_t(m_token.size())) != 0)
        return std::nullopt;
    if (int(m_cookies.size()) >= m_maxLogins) {
        *ended = m_cookies.front();
        m_cookies.pop_front();
    }
    m_cookies.push_back(randomToken(32));
    return m_cookies.back();
}

bool BrowserLogins::isLoggedIn(const QString &cookie) const
{
    return !cookie.isEmpty() && std::find(m_cookies.begin(), m_cookies.end(), cookie) != m_cookies.end();
}

void BrowserLogins::logout(const QString &cookie)
{
    m_cookies.remove(cookie);
}

QString BrowserLogins::cookieFromHeader(const QByteArray &header)
{
    for (const QByteArray &part : header.split(';')) {
        const QByteArray item = part.trimmed();
        const qsizetype equals = item.indexOf('=');
        if (equals > 0 && item.left(equals) == kCookieName)
            return QString::fromLatin1(item.mid(equals + 1));
    }
    return {};
}

QByteArray BrowserLogins::setCookieHeader(const QString &cookie)
{
    return QByteArray(kCookieName) + '=' + cookie.toLatin1() + "; Path=/; HttpOnly; SameSite=Strict";
}

QByteArray BrowserLogins::clearCookieHeader()
{
    return QByteArray(kCookieName) + "=; Path=/; HttpOnly; SameSite=Strict; Max-Age=0";
}
