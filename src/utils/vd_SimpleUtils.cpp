#include "utils/vd_SimpleUtils.h"

#include "platform/SystemIdentity.h"

#include <QCryptographicHash>

void vd_SimpleUtils::time(const QDateTime &date, qint32 *year, qint32 *month, qint32 *day, qint32 *hour,
                          qint32 *minute, qint32 *second)
{
    const qint64 msecs = date.toMSecsSinceEpoch();
    const qint64 wholeSeconds = msecs / 1000; // integer division truncates towards zero
    const QDateTime local = QDateTime::fromSecsSinceEpoch(wholeSeconds).toLocalTime();
    const QDate d = local.date();
    const QTime t = local.time();
    if (year)
        *year = d.year();
    if (month)
        *month = d.month();
    if (day)
        *day = d.day();
    if (hour)
        *hour = t.hour();
    if (minute)
        *minute = t.minute();
    if (second)
        *second = t.second();
}

QString vd_SimpleUtils::computerName(const QString &machineInfoPath)
{
    const QString name = SystemIdentity::prettyComputerName(machineInfoPath);
    return name.isEmpty() ? QStringLiteral("Your Mac") : name;
}

QString vd_SimpleUtils::sha256Hex(const QString &text)
{
    QByteArray bytes = text.toUtf8();
    const qsizetype zero = bytes.indexOf('\0');
    if (zero >= 0)
        bytes.truncate(zero);
    return sha256DigestToHexString(QCryptographicHash::hash(bytes, QCryptographicHash::Sha256));
}

QString vd_SimpleUtils::sha256DigestToHexString(const QByteArray &digest)
{
    return QString::fromLatin1(digest.toHex());
}
