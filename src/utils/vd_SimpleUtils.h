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

    // The item's size in bytes; a folder's is the sum of everything below it, walked depth first without
    // following links below it (a link given as the item is followed). count (when given) gets the number of
    // items: the item itself plus every file and folder below. When the walk takes longer than maxTime
    // seconds (0 means 10) it stops, sets maxReached, and the figures are lower bounds. A missing item is 0
    // with a count of 1; an empty path is 0 and leaves the out-parameters alone. A leading "~" is the home
    // folder.
    static quint64 sizeOfItem(const QString &path, double maxTime, qint64 *count, bool *maxReached);

    // A byte count as people read it, in decimal units with deliberately uneven bands: "1.5 GB", "24 MB",
    // "2.3 MB", "999 KB", "0.3 KB", "0".
    static QString stringFromByteCount(double bytes);
};
