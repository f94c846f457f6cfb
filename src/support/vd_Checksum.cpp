#include "support/vd_Checksum.h"

#include <QFile>

#include <openssl/evp.h>
#include <zlib.h>

#include <memory>

namespace {

constexpr qint64 kChunkSize = 1024 * 1024;

QString hex(const unsigned char *bytes, unsigned int length)
{
    return QString::fromLatin1(QByteArray(reinterpret_cast<const char *>(bytes), int(length)).toHex());
}

} // namespace

bool vd_Checksum::hashFile(const QString &path, qint32 headerSize, QString *md5Out, QString *crc32Out,
                           QString *errorOut)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        if (errorOut)
            *errorOut = file.errorString();
        return false;
    }
    if (!md5Out && !crc32Out)
        return false;
    // Seeking past the end is allowed: the first read then gives nothing, so both digests are of no bytes.
    file.seek(qMax<qint64>(0, headerSize));

    const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> md5(EVP_MD_CTX_new(), EVP_MD_CTX_free);
    if (!md5 || EVP_DigestInit_ex(md5.get(), EVP_md5(), nullptr) != 1)
        return false;
    // zlib's crc32 is the reflected 0xEDB88320 CRC with the same start value and final complement.
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
