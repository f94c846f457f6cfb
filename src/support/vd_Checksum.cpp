#include "support/vd_Checksum.h"

#include <QFile>

#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <cerrno>
#include <memory>

namespace {

constexpr qint64 kChunkSize = 1024 * 1024;

QString hex(const unsigned char *bytes, unsigned int length)
{
    return QString::fromLatin1(QByteArray(reinterpret_cast<const char *>(bytes), int(length)).toHex());
}

// Opens a regular file for reading. A pipe would block the open until some writer comes and a device can be
// read forever, so they are refused; the check is made on the open descriptor, leaving no window for a swap.
bool openRegularFile(const QString &path, QFile &file, QString *errorOut)
{
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        if (errorOut)
            *errorOut = qt_error_string(errno);
        return false;
    }
    struct stat info = {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
        if (errorOut)
            *errorOut = qt_error_string(S_ISDIR(info.st_mode) ? EISDIR : EINVAL);
        ::close(fd);
        return false;
    }
    return file.open(fd, QIODevice::ReadOnly, QFileDevice::AutoCloseHandle);
}

} // namespace

bool vd_Checksum::hashFile(const QString &path, qint32 headerSize, QString *md5Out, QString *crc32Out,
                           QString *errorOut)
{
    QFile file;
    if (!openRegularFile(path, file, errorOut))
        return false;
    if (!md5Out && !crc32Out)
        return false;
    // Seeking past the end is allowed: the first read then gives nothing, so both digests are of no bytes.
    file.seek(qMax<qint64>(0, headerSize));

    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> md5(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    if (!md5 || EVP_DigestInit_ex(md5.get(), EVP_md5(), nullptr) != 1)
        return false;
    // zlib is linked already for the envelope, and its crc32 is this very CRC (reflected 0xEDB88320, start
    // 0xFFFFFFFF, final complement) over a table, only several bytes a step: no second table of our own.
    uLong crc = ::crc32(0L, Z_NULL, 0);

    QByteArray chunk;
    do {
        chunk = file.read(kChunkSize);
        EVP_DigestUpdate(md5.get(), chunk.constData(), size_t(chunk.size()));
        crc = ::crc32(crc, reinterpret_cast<const Bytef *>(chunk.constData()), uInt(chunk.size()));
    } while (chunk.size() == kChunkSize);

    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int digestLength = 0;
    EVP_DigestFinal_ex(md5.get(), digest, &digestLength);
    if (md5Out)
        *md5Out = hex(digest, digestLength);
    if (crc32Out)
        *crc32Out = QString::asprintf("%08lx", crc);
    return true;
}

QString vd_Checksum::crc32(const QString &path)
{
    QString md5;
    QString crc;
    return hashFile(path, 0, &md5, &crc) ? crc : QString();
}
