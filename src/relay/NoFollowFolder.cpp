#include "relay/NoFollowFolder.h"

#include "relay/RandomToken.h"

#include <QDir>
#include <QFile>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace {

QString why(int dirFd, const QByteArray &name, const QString &kind, int error)
{
    struct stat status = {};
    if (::fstatat(dirFd, name.constData(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
        if (S_ISLNK(status.st_mode))
            return QStringLiteral("a symbolic link stands in place of the %1; nothing is written through it")
                .arg(kind);
        if (!S_ISDIR(status.st_mode))
            return QStringLiteral("the %1 is not a folder").arg(kind);
    }
    return QStringLiteral("the %1 cannot be opened: %2")
        .arg(kind, QString::fromLocal8Bit(std::strerror(error)));
}

} // namespace

std::optional<NoFollowFolder> NoFollowFolder::open(const QString &base, const QList<Step> &steps, bool create,
                                                   QString &refusal)
{
    refusal.clear();
    if (create)
        QDir().mkpath(base);
    NoFollowFolder folder(::open(QFile::encodeName(base).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder.m_fd < 0) {
        if (errno != ENOENT || create)
            refusal = QStringLiteral("the cloud folder cannot be opened: %1")
                          .arg(QString::fromLocal8Bit(std::strerror(errno)));
        return std::nullopt;
    }
    for (const Step &step : steps) {
        const QByteArray name = QFile::encodeName(step.name);
        if (create)
            ::mkdirat(folder.m_fd, name.constData(), 0755);
        const int next =
            ::openat(folder.m_fd, name.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        if (next < 0) {
            const int error = errno;
            if (error != ENOENT || create)
                refusal = why(folder.m_fd, name, step.kind, error);
            return std::nullopt;
        }
        folder = NoFollowFolder(next);
    }
    return folder;
}

NoFollowFolder::NoFollowFolder(int fd)
    : m_fd(fd)
{}

NoFollowFolder::NoFollowFolder(NoFollowFolder &&other) noexcept
    : m_fd(std::exchange(other.m_fd, -1))
{}

NoFollowFolder &NoFollowFolder::operator=(NoFollowFolder &&other) noexcept
{
    if (this != &other) {
        if (m_fd >= 0)
            ::close(m_fd);
        m_fd = std::exchange(other.m_fd, -1);
    }
    return *this;
}

NoFollowFolder::~NoFollowFolder()
{
    if (m_fd >= 0)
        ::close(m_fd);
}

bool NoFollowFolder::writeAtomically(const QString &name, const QString &kind, const QByteArray &content,
                                     QString &refusal) const
{
    refusal.clear();
    const QByteArray target = QFile::encodeName(name);
    struct stat status = {};
    if (::fstatat(m_fd, target.constData(), &status, AT_SYMLINK_NOFOLLOW) == 0 && !S_ISREG(status.st_mode)) {
        refusal =
            S_ISLNK(status.st_mode)
                ? QStringLiteral("a symbolic link stands in place of the %1; nothing is written through it")
                      .arg(kind)
                : QStringLiteral("the %1 is not a regular file").arg(kind);
        return false;
    }
    const QByteArray temporary = QFile::encodeName(QStringLiteral(".%1.%2.tmp").arg(name, randomToken(6)));
    const int fd =
        ::openat(m_fd, temporary.constData(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    bool written = fd >= 0;
    for (qsizetype done = 0; written && done < content.size();) {
        const ssize_t count = ::write(fd, content.constData() + done, std::size_t(content.size() - done));
        written = count > 0 || (count < 0 && errno == EINTR);
        done += std::max<ssize_t>(count, 0);
    }
    const int error = errno;
    if (fd >= 0 && ::close(fd) != 0)
        written = false;
    if (written && ::renameat(m_fd, temporary.constData(), m_fd, target.constData()) == 0)
        return true;
    refusal = QStringLiteral("the %1 could not be written: %2")
                  .arg(kind, QString::fromLocal8Bit(std::strerror(written ? errno : error)));
    if (fd >= 0)
        ::unlinkat(m_fd, temporary.constData(), 0);
    return false;
}

bool NoFollowFolder::remove(const QString &name) const
{
    return ::unlinkat(m_fd, QFile::encodeName(name).constData(), 0) == 0 || errno == ENOENT;
}
