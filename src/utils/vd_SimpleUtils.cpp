#include "utils/vd_SimpleUtils.h"

#include "platform/SystemIdentity.h"
#include "utils/PathHelpers.h"

#include <QCryptographicHash>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>

#include <fts.h>
#include <sys/stat.h>

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

quint64 vd_SimpleUtils::sizeOfItem(const QString &path, double maxTime, qint64 *count, bool *maxReached)
{
    if (path.isEmpty())
        return 0;
    const QString expanded = path.startsWith(u'~') ? QDir::homePath() + path.mid(1) : path;
    if (maxReached)
        *maxReached = false;
    if (count)
        *count = 1;
    const QByteArray native = QFile::encodeName(expanded);
    struct stat info;
    if (::stat(native.constData(), &info) != 0)
        return 0;
    if (!S_ISDIR(info.st_mode))
        return quint64(info.st_size);

    const qint64 limitNs = qint64((maxTime > 0 ? maxTime : 10.0) * 1e9);
    QElapsedTimer timer;
    timer.start();
    char *roots[] = {const_cast<char *>(native.constData()), nullptr};
    FTS *walk = ::fts_open(roots, FTS_PHYSICAL | FTS_COMFOLLOW | FTS_NOCHDIR, nullptr);
    if (!walk)
        return 0;
    quint64 total = 0;
    qint64 items = 1;
    while (FTSENT *entry = ::fts_read(walk)) {
        // Each item once: folders on the way in, and not the starting folder itself.
        if (entry->fts_level == 0 || entry->fts_info == FTS_DP)
            continue;
        if (entry->fts_info == FTS_F)
            total += quint64(entry->fts_statp->st_size);
        if (timer.nsecsElapsed() > limitNs) {
            if (maxReached)
                *maxReached = true;
            break;
        }
        ++items;
    }
    ::fts_close(walk);
    if (count)
        *count = items;
    return total;
}

QString vd_SimpleUtils::stringFromByteCount(double bytes)
{
    if (bytes > 1e9)
        return DoubleToString(bytes / 1e9, 2) + QStringLiteral(" GB");
    if (bytes > 1e7)
        return QString::number(qint64((bytes + 500000.0) / 1e6)) + QStringLiteral(" MB");
    if (bytes > 1e6)
        return DoubleToString(bytes / 1e6, 2) + QStringLiteral(" MB");
    const qint64 kilobytes = qint64((bytes + 500.0) / 1000.0);
    if (kilobytes >= 1)
        return QString::number(kilobytes) + QStringLiteral(" KB");
    if (bytes > 0)
        return QStringLiteral("0.") + QString::number(qint64(bytes * 10.0 / 1000.0)) + QStringLiteral(" KB");
    return QStringLiteral("0");
}
