#include "engine/RelayAddress.h"

#include <QHostAddress>
#include <QUrl>

bool isAllowedRelayAddress(const QString &baseUrl)
{
    const QUrl url(baseUrl, QUrl::StrictMode);
    if (!url.isValid() || url.host().isEmpty())
        return false;
    const QString scheme = url.scheme().toLower();
    if (scheme == QStringLiteral("https"))
        return true;
    if (scheme != QStringLiteral("http"))
        return false;
    const QString host = url.host().toLower();
    if (host == QStringLiteral("localhost"))
        return true;
    // Only a literal address counts; a name that merely starts like one ("127.0.0.1.example") does not.
    QHostAddress address;
    return address.setAddress(host) && address.isLoopback();
}
