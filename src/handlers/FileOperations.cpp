#include "handlers/FileOperations.h"

#include "handlers/HandlersLog.h"
#include "support/Logging.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace FileOperations {

namespace {

constexpr size_t kChunk = 1024 * 1024;

QByteArray native(const QString &path)
{
    return QFile::encodeName(path);
}

QString systemError(const QString &path, int error = errno)
{
    return QStringLiteral("%1 (%2)").arg(QString::fromLocal8Bit(std::strerror(error)), path);
}

// Renames without replacing: the final name must still be free when the rename happens.
Failure renameNoReplace(const QString &from, const QString &to)
{
    if (::renameat2(AT_FDCWD, native(from).constData(), AT_FDCWD, native(to).constData(), RENAME_NOREPLACE) ==
        0)
        return std::nullopt;
    if (errno != EINVAL && errno != ENOSYS)
        return systemError(to);
    // A file system without the no-replace flag: check, then rename.
    struct stat existing;
    if (::lstat(native(to).constData(), &existing) == 0)
        return systemError(to, EEXIST);
    if (::rename(native(from).constData(), native(to).constData()) != 0)
        return systemError(to);
    return std::nullopt;
}

// A name in the destination's folder that nothing else uses, hidden from file managers.
QString temporarySibling(const QString &destination)
{
    const QFileInfo info(destination);
    return info.absolutePath() +
           QStringLiteral("/.%1.vandrel-partial-%2").arg(info.fileName()).arg(::getpid());
}

void removeTree(const QString &path)
{
    struct stat info;
    if (::lstat(native(path).constData(), &info) != 0)
        return;
    if (S_ISDIR(info.st_mode))
        QDir(path).removeRecursively();
    else
        ::unlink(native(path).constData());
}

// Copies one regular file to `target` (a new name nobody else uses), flushed and checked.
Failure copyFileContents(const QString &source, const QString &target, const QString &finalPath,
                         const InterruptionCheck &check)
{
    const int in = ::open(native(source).constData(), O_RDONLY | O_CLOEXEC);
    if (in < 0)
        return systemError(source);
    struct stat sourceInfo;
    ::fstat(in, &sourceInfo);
    const int out = ::open(native(target).constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (out < 0) {
        const Failure failure = systemError(target);
        ::close(in);
        return failure;
    }
    Failure failure;
    std::vector<char> buffer(kChunk);
    qint64 written = 0;
    for (;;) {
        if (check && !check(finalPath, written)) {
            failure = systemError(finalPath, EIO);
            break;
        }
        const ssize_t got = ::read(in, buffer.data(), buffer.size());
        if (got < 0) {
            if (errno == EINTR)
                continue;
            failure = systemError(source);
            break;
        }
        if (got == 0)
            break;
        for (ssize_t done = 0; done < got && !failure;) {
            const ssize_t put = ::write(out, buffer.data() + done, size_t(got - done));
            if (put < 0 && errno != EINTR)
                failure = systemError(finalPath);
            else if (put > 0)
                done += put;
        }
        if (failure)
            break;
        written += got;
    }
    if (!failure && ::fsync(out) != 0)
        failure = systemError(finalPath);
    struct stat targetInfo;
    if (!failure &&
        (::fstat(out, &targetInfo) != 0 || targetInfo.st_size != written || written != sourceInfo.st_size))
        failure = systemError(finalPath, EIO);
    if (!failure) {
        ::fchmod(out, sourceInfo.st_mode & 07777);
        const struct timespec times[2] = {sourceInfo.st_atim, sourceInfo.st_mtim};
        ::futimens(out, times);
    }
    ::close(in);
    if (::close(out) != 0 && !failure)
        failure = systemError(finalPath);
    return failure;
}

// Copies the item at `source` to the new name `target`, folders recursively.
Failure copyTree(const QString &source, const QString &target, const QString &finalPath,
                 const InterruptionCheck &check)
{
    struct stat info;
    if (::lstat(native(source).constData(), &info) != 0)
        return systemError(source);
    if (S_ISLNK(info.st_mode)) {
        QByteArray link(4096, '\0');
        const ssize_t length = ::readlink(native(source).constData(), link.data(), size_t(link.size()));
        if (length < 0)
            return systemError(source);
        link.truncate(length);
        if (::symlink(link.constData(), native(target).constData()) != 0)
            return systemError(finalPath);
        return std::nullopt;
    }
    if (S_ISREG(info.st_mode))
        return copyFileContents(source, target, finalPath, check);
    if (!S_ISDIR(info.st_mode))
        return systemError(source, ENOTSUP);
    if (::mkdir(native(target).constData(), 0700) != 0)
        return systemError(finalPath);
    const QStringList names =
        QDir(source).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
    for (const QString &name : names) {
        if (const Failure failure =
                copyTree(source + u'/' + name, target + u'/' + name, finalPath + u'/' + name, check))
            return failure;
    }
    ::chmod(native(target).constData(), info.st_mode & 07777);
    return std::nullopt;
}

} // namespace

Failure copyItem(const QString &source, const QString &destination, const InterruptionCheck &check)
{
    struct stat existing;
    if (::lstat(native(destination).constData(), &existing) == 0)
        return systemError(destination, EEXIST);
    const QString temporary = temporarySibling(destination);
    removeTree(temporary); // a leftover of an earlier crash of ours
    Failure failure = copyTree(source, temporary, destination, check);
    if (!failure)
        failure = renameNoReplace(temporary, destination);
    if (failure)
        removeTree(temporary);
    return failure;
}

Failure moveItem(const QString &source, const QString &destination, const InterruptionCheck &check)
{
    if (::renameat2(AT_FDCWD, native(source).constData(), AT_FDCWD, native(destination).constData(),
                    RENAME_NOREPLACE) == 0)
        return std::nullopt;
    if (errno != EXDEV)
        return systemError(errno == EEXIST ? destination : source);
    if (const Failure failure = copyItem(source, destination, check))
        return failure;
    // The copy is complete and on disk: only now may the source go.
    struct stat info;
    ::lstat(native(source).constData(), &info);
    const bool removed =
        S_ISDIR(info.st_mode) ? QDir(source).removeRecursively() : ::unlink(native(source).constData()) == 0;
    if (!removed) {
        qCWarning(lcHandlers).noquote()
            << QStringLiteral("moved %1 to %2 but could not remove the original")
                   .arg(Logging::shownInLog(source), Logging::shownInLog(destination));
        return systemError(source);
    }
    return std::nullopt;
}

} // namespace FileOperations
