#include "relay/AccessToken.h"

#include "relay/RandomToken.h"
#include "relay/RelayLog.h"

#include <QDir>
#include <QFile>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

std::optional<QByteArray> loadOrMakeAccessToken(const QString &stateDir)
{
    if (!QDir().mkpath(stateDir)) {
        qCCritical(lcRelay).noquote() << "cannot make the state folder" << stateDir;
        return std::nullopt;
    }
    ::chmod(QFile::encodeName(stateDir).constData(), 0700);
    const QByteArray path = QFile::encodeName(stateDir + QStringLiteral("/access_token"));
    int fd = ::open(path.constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0 && errno == ENOENT) {
        fd = ::open(path.constData(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
        if (fd >= 0) {
            const QByteArray token = randomToken(32).toLatin1();
            const bool written =
                ::write(fd, token.constData(), std::size_t(token.size())) == token.size() && ::fsync(fd) == 0;
            ::close(fd);
            if (!written) {
                ::unlink(path.constData());
                qCCritical(lcRelay).noquote() << "cannot write the access token in" << stateDir;
                return std::nullopt;
            }
            return token;
        }
    }
    if (fd < 0) {
        qCCritical(lcRelay).noquote() << "cannot read the access token in" << stateDir;
        return std::nullopt;
    }
    struct stat status = {};
    QByteArray token(256, Qt::Uninitialized);
    const ssize_t length =
        ::fstat(fd, &status) == 0 ? ::read(fd, token.data(), std::size_t(token.size())) : -1;
    ::close(fd);
    if (length < 0 || !S_ISREG(status.st_mode) || (status.st_mode & 077) != 0 ||
        status.st_uid != ::getuid()) {
        qCCritical(lcRelay).noquote()
            << "the access token file must be a regular file of this user, mode 0600:"
            << QFile::decodeName(path);
        return std::nullopt;
    }
    token.truncate(length);
    token = token.trimmed();
    if (token.size() < 32) {
        qCCritical(lcRelay).noquote()
            << "the access token file is too short; remove it to make a new one:" << QFile::decodeName(path);
        return std::nullopt;
    }
    return token;
}
