#include "utils/PathHelpers.h"

#include <QFile>

#include <sys/stat.h>

#include <cstdio>

namespace {

// Seconds from 1970 to the reference date 2001-01-01, and the reference offset of 1904-01-01.
constexpr double kReferenceDateOffset = 978307200.0;
constexpr double kMissingFileSeconds = -3061152000.0;

} // namespace

QString IntToString(qint32 value)
{
    return QString::number(value);
}

QString DoubleToString(double value, int digits)
{
    char buffer[256];
    std::snprintf(buffer, sizeof buffer, "%.*f", digits > 0 ? digits - 1 : 0, value);
    return QString::fromLatin1(buffer);
}

double GetFileModificationDateSecondsSince2000(const QString &path)
{
    const QByteArray native = QFile::encodeName(path);
    struct stat info;
    if (native.isEmpty() || ::lstat(native.constData(), &info) != 0)
        return kMissingFileSeconds;
    return double(info.st_mtim.tv_sec) + double(info.st_mtim.tv_nsec) / 1e9 - kReferenceDateOffset;
}

QDateTime GetFileModificationDate(const QString &path)
{
    const double seconds = GetFileModificationDateSecondsSince2000(path) + kReferenceDateOffset;
    return QDateTime::fromMSecsSinceEpoch(qint64(seconds * 1000.0), Qt::UTC);
}

bool IsDirectory(const QString &path)
{
    const QByteArray native = QFile::encodeName(path);
    struct stat info;
    return !native.isEmpty() && ::stat(native.constData(), &info) == 0 && S_ISDIR(info.st_mode);
}
