#include "common/TempHome.h"
#include "support/vd_Checksum.h"

#include <QCryptographicHash>
#include <QFile>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <chrono>
#include <future>

TEST(Checksum, KnownDigestsChunkBoundariesHeaderSkipAndOnlyRegularFiles)
{
    const TempHome home;
    EXPECT_EQ(vd_Checksum::crc32(home.writeFile(QStringLiteral("check"), "123456789")),
              QStringLiteral("cbf43926"));
    QString md5 = QStringLiteral("unset");
    QString crc = QStringLiteral("unset");
    const QString abc = home.writeFile(QStringLiteral("abc"), "abc");
    EXPECT_FALSE(vd_Checksum::hashFile(abc, 0, nullptr, nullptr));
    EXPECT_TRUE(vd_Checksum::hashFile(abc, 0, &md5, nullptr));
    EXPECT_EQ(md5, QStringLiteral("900150983cd24fb0d6963f7d28e17f72"));
    EXPECT_EQ(crc, QStringLiteral("unset"));

    // A missing file, a folder and a device give no digest, an error text, and leave the caller's values.
    for (const QString &path :
         {home.filePath(QStringLiteral("missing")), home.path(), QStringLiteral("/dev/zero")}) {
        QString error;
        EXPECT_FALSE(vd_Checksum::hashFile(path, 0, &md5, &crc, &error)) << path.toStdString();
        EXPECT_FALSE(error.isEmpty());
        EXPECT_EQ(vd_Checksum::crc32(path), QString());
    }
    EXPECT_EQ(md5, QStringLiteral("900150983cd24fb0d6963f7d28e17f72"));
    EXPECT_EQ(crc, QStringLiteral("unset"));

    // A pipe with no writer must be refused at once, not wait for a writer that never comes.
    const QByteArray fifo = QFile::encodeName(home.filePath(QStringLiteral("pipe")));
    ASSERT_EQ(::mkfifo(fifo.constData(), 0600), 0);
    auto pending =
        std::async(std::launch::async, [&] { return vd_Checksum::crc32(QFile::decodeName(fifo)); });
    const bool answered = pending.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
    if (!answered)
        ::close(::open(fifo.constData(), O_WRONLY)); // lets the stuck reader see an end of file
    EXPECT_TRUE(answered);
    EXPECT_EQ(pending.get(), QString());

    // Across the 1 MiB chunks, with and without a skipped header, the digests are the single-pass ones.
    for (const qsizetype size :
         {qsizetype(1024 * 1024), qsizetype(1024 * 1024 + 1), qsizetype(3 * 1024 * 1024 - 5)}) {
        QByteArray content(size, '\0');
        for (qsizetype i = 0; i < size; ++i)
            content[i] = char((i * 131) ^ (i >> 9));
        const QString path = home.writeFile(QString::number(size), content);
        for (const qint32 header : {0, 1000}) {
            const QByteArray hashed = content.mid(header);
            ASSERT_TRUE(vd_Checksum::hashFile(path, header, &md5, &crc));
            EXPECT_EQ(md5,
                      QString::fromLatin1(QCryptographicHash::hash(hashed, QCryptographicHash::Md5).toHex()));
            const uLong expected =
                ::crc32(0, reinterpret_cast<const Bytef *>(hashed.constData()), uInt(hashed.size()));
            EXPECT_EQ(crc, QString::asprintf("%08lx", expected)) << size << " " << header;
        }
    }

    // A header longer than the file leaves the digests of no bytes.
    ASSERT_TRUE(vd_Checksum::hashFile(abc, 100, &md5, &crc));
    EXPECT_EQ(md5, QStringLiteral("d41d8cd98f00b204e9800998ecf8427e"));
    EXPECT_EQ(crc, QStringLiteral("00000000"));
}
