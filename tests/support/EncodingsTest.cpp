#include "support/Encodings.h"

#include <QProcess>
#include <QRandomGenerator>

#include <gtest/gtest.h>
#include <zlib.h>

namespace {

QByteArray inflateWithZlib(const QByteArray &stream)
{
    QByteArray out(1 << 20, '\0');
    uLongf length = uLongf(out.size());
    if (uncompress(reinterpret_cast<Bytef *>(out.data()), &length,
                   reinterpret_cast<const Bytef *>(stream.constData()), uLong(stream.size())) != Z_OK)
        return QByteArray("<inflate failed>");
    out.truncate(qsizetype(length));
    return out;
}

QByteArray randomBytes(qsizetype size, quint32 seed)
{
    QRandomGenerator generator(seed);
    QByteArray bytes(size, '\0');
    for (char &byte : bytes)
        byte = char(generator.bounded(256));
    return bytes;
}

} // namespace

TEST(Encodings, UrlSafeBase64EncodesWithPaddingAndUrlAlphabet)
{
    EXPECT_EQ(base64Encoding_URL_SAFE(QByteArray("\xfb\xff", 2)), QStringLiteral("-_8="));

    for (int size = 0; size < 70; ++size) {
        const QByteArray bytes = randomBytes(size, quint32(size));
        const QString text = base64Encoding_URL_SAFE(bytes);
        EXPECT_EQ(text.size(), 4 * ((size + 2) / 3));
        EXPECT_FALSE(text.contains(u'+') || text.contains(u'/'));
        EXPECT_EQ(text, QString::fromLatin1(bytes.toBase64(QByteArray::Base64UrlEncoding)));
        EXPECT_EQ(dataWithBase64EncodedString_URL_SAFE(text), bytes) << size;
    }
}

TEST(Encodings, UrlSafeBase64DecodingIsStrictAboutTheAlphabetOnly)
{
    const QByteArray fbff("\xfb\xff", 2);
    EXPECT_EQ(dataWithBase64EncodedString_URL_SAFE(QStringLiteral("-_8")), fbff);
    EXPECT_EQ(dataWithBase64EncodedString_URL_SAFE(QStringLiteral("-_8=")), fbff);
    EXPECT_EQ(dataWithBase64EncodedString_URL_SAFE(QStringLiteral("-_8=\n")), fbff);
    EXPECT_EQ(dataWithBase64EncodedString_URL_SAFE(QStringLiteral(" -_\t8\r\n=")), fbff);
    EXPECT_EQ(dataWithBase64EncodedString_URL_SAFE(QStringLiteral("==-_=8")), fbff);
    EXPECT_EQ(dataWithBase64EncodedString_URL_SAFE(QString()), QByteArray());

    EXPECT_EQ(dataWithBase64EncodedString_URL_SAFE(QStringLiteral("+/8=")), std::nullopt);
    EXPECT_EQ(dataWithBase64EncodedString_URL_SAFE(QStringLiteral("A")), std::nullopt);
    EXPECT_EQ(dataWithBase64EncodedString_URL_SAFE(QStringLiteral("AAAAA")), std::nullopt);
    EXPECT_EQ(dataWithBase64EncodedString_URL_SAFE(QStringLiteral("AA\u00e9A")), std::nullopt);
    EXPECT_EQ(dataWithBase64EncodedString_URL_SAFE(QStringLiteral("AA.A")), std::nullopt);
}

TEST(Encodings, StandardBase64ReaderSkipsForeignCharactersAndWantsUtf8)
{
    const QString dropbox = QStringLiteral("/Users/x/Dropbox");
    EXPECT_EQ(base64DecodedString(QStringLiteral("L1VzZXJzL3gvRHJvcGJveA==")), dropbox);
    EXPECT_EQ(base64DecodedString(QStringLiteral("L1VzZXJzL3gv\nRHJvcGJveA==")), dropbox);
    EXPECT_EQ(base64DecodedString(QStringLiteral("L1VzZXJzL3gv\u00e9RHJvc*GJveA")), dropbox);
    EXPECT_EQ(base64DecodedString(QString::fromLatin1(QByteArray("/tmp/\xc3\xa9t\xc3\xa9").toBase64())),
              QStringLiteral("/tmp/\u00e9t\u00e9"));
    EXPECT_EQ(base64DecodedString(QStringLiteral("77u/L3g=")), QStringLiteral("\ufeff/x"));
    EXPECT_EQ(base64DecodedString(QStringLiteral("77u/")), QStringLiteral("\ufeff"));

    EXPECT_EQ(base64DecodedString(QString()), std::nullopt);
    EXPECT_EQ(base64DecodedString(QStringLiteral("====")), std::nullopt);
    EXPECT_EQ(base64DecodedString(QString::fromLatin1(QByteArray("\xff\xfe").toBase64())), std::nullopt);
}

TEST(Encodings, ZlibStreamsInflateWithZlibAndPython)
{
    EXPECT_EQ(zlibDeflate(QByteArray()), QByteArray());

    // Incompressible input larger than several growth steps exercises the buffer growth.
    for (const QByteArray &input : {QByteArray("{}"), QByteArray(100000, 'a'), randomBytes(50000, 7)}) {
        const std::optional<QByteArray> stream = zlibDeflate(input);
        ASSERT_TRUE(stream.has_value());
        EXPECT_EQ(quint8(stream->at(0)), 0x78);
        EXPECT_EQ(inflateWithZlib(*stream), input);
    }

    QProcess python;
    python.start(QStringLiteral("python3"),
                 {QStringLiteral("-c"),
                  QStringLiteral(
                      "import sys,zlib; sys.stdout.buffer.write(zlib.decompress(sys.stdin.buffer.read()))")});
    ASSERT_TRUE(python.waitForStarted(10000));
    const QByteArray payload = QByteArray("{\"requests\":[]}").repeated(1000);
    python.write(*zlibDeflate(payload));
    python.closeWriteChannel();
    ASSERT_TRUE(python.waitForFinished(30000));
    EXPECT_EQ(python.readAllStandardOutput(), payload);
}
