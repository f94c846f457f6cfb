#pragma once

#include <QString>

// File digests for file links: the CRC-32 a link carries, computed in one pass with the file's MD5.
class vd_Checksum
{
public:
    // Reads the file once in 1 MiB chunks (memory stays at one chunk) after skipping headerSize bytes,
    // feeding MD5 and CRC-32 together. Sets the requested digests ("%02x" MD5, "%08x" CRC) only on success.
    // False when the path is not a regular file that can be opened (errorOut gets the reason: pipes and
    // devices are refused rather than waited on or read without end) or when no digest is asked for.
    // A read error midway ends the digests as an end of file would.
    static bool hashFile(const QString &path, qint32 headerSize, QString *md5Out, QString *crc32Out,
                         QString *errorOut = nullptr);

    // The CRC-32 text of the whole file, or "" when it cannot be read.
    static QString crc32(const QString &path);
};
