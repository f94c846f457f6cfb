#include "handlers/ItemComparison.h"

#include <QDir>
#include <QFile>
#include <QSet>

#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr qint64 kChunk = 1024 * 1024;

bool filesEqual(const QString &first, const QString &second)
{
    QFile a(first);
    QFile b(second);
    if (!a.open(QIODevice::ReadOnly) || !b.open(QIODevice::ReadOnly) || a.size() != b.size())
        return false;
    while (!a.atEnd()) {
        const QByteArray chunkA = a.read(kChunk);
        if (chunkA.isEmpty() || chunkA != b.read(kChunk))
            return false;
    }
    return b.atEnd();
}

QByteArray linkTarget(const QString &path)
{
    QByteArray target(4096, '\0');
    const ssize_t length =
        ::readlink(QFile::encodeName(path).constData(), target.data(), size_t(target.size()));
    return length < 0 ? QByteArray() : target.left(length);
}

QSet<QString> namesIn(const QString &folder)
{
    const QStringList names =
        QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    return QSet<QString>(names.begin(), names.end());
}

} // namespace

bool contentsEqual(const QString &first, const QString &second)
{
    struct stat a;
    struct stat b;
    if (::lstat(QFile::encodeName(first).constData(), &a) != 0 ||
        ::lstat(QFile::encodeName(second).constData(), &b) != 0)
        return false;
    if ((a.st_mode & S_IFMT) != (b.st_mode & S_IFMT))
        return false;
    if (S_ISLNK(a.st_mode))
        return linkTarget(first) == linkTarget(second);
    if (S_ISREG(a.st_mode))
        return filesEqual(first, second);
    if (!S_ISDIR(a.st_mode))
        return false;
    const QSet<QString> names = namesIn(first);
    if (names != namesIn(second))
        return false;
    for (const QString &name : names) {
        if (!contentsEqual(first + u'/' + name, second + u'/' + name))
            return false;
    }
    return true;
}
