#pragma once

#include <QString>
#include <QVariant>

// The failure a connection ends with. Errors of the connection itself carry FSNConnectionErrorDomain;
// transport failures keep the network layer's own domain, code and text; a malformed JSON body keeps the
// JSON parser's.
struct FSNError
{
    QString domain;
    int code = 0;
    QString description;
    // The parsed value that a dictionary parse rejected (code 1); empty otherwise.
    QVariant result;
};

inline const QString FSNConnectionErrorDomain = QStringLiteral("FSNConnectionErrorDomain");
// Codes are QNetworkReply::NetworkError values; descriptions are the reply's error text.
inline const QString FSNTransportErrorDomain = QStringLiteral("QNetworkReply");
// Codes are QJsonParseError::ParseError values.
inline const QString FSNJsonErrorDomain = QStringLiteral("QJsonParseError");
