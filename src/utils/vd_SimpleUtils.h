#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QString>

class vd_SimpleUtils
{
public:
    // Splits the date, truncated towards zero to whole seconds, in the local time zone. Any out-pointer
    // may be null.
    static void time(const QDateTime &date, qint32 *year, qint32 *month, qint32 *day, qint32 *hour,
                     qint32 *minute, qint32 *second);

    // The computer's user-visible name; "Your Mac" when the system has none (the text the WebApp knows).
    static QString computerName(const QString &machineInfoPath = QStringLiteral("/etc/machine-info"));

    // Lowercase hex of the SHA-256 of the text's UTF-8 bytes, up to a first zero character.
    static QString sha256Hex(const QString &text);
    // Lowercase hex of a 32-byte digest.
    static QString sha256DigestToHexString(const QByteArray &digest);
};
