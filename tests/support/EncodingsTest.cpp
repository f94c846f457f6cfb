#include "support/Encodings.h"

#include <QRandomGenerator>
#include <QtEndian>

#include <gtest/gtest.h>

namespace {

QByteArray randomBytes(qsizetype size, quint32 seed)
{
    QRandomGenerator generator(seed);
    QByteArray bytes(size, '\0');
    for (char &byte : bytes)
        byte = char(generator.bounded(256));
    return bytes;
}

} // namespace

TEST(Encodings, UrlSafeBase64RoundTripsAndDecodingIsStrictAboutTheAlphabetOnly)
{
    for (int size = 0; size < 70; ++size) {
        const QByteArray bytes = randomBytes(size, quint32(size));
        const QString text = base64Encoding_URL_SAFE(bytes);
        EXPECT_EQ(text, QString::fromLatin1(bytes.toBase64(QByteArray::Base64UrlEncoding))) << size;
        EXPECT_EQ(dataWithBase64EncodedString_URL_SAFE(text), bytes) << size;
    }

    const QByteArray fbff("\xfb\xff", 2);
    const std::pair<QString, std::optional<QByteArray>> decoded[] = {
        {"-_8", fbff},           {"-_8=", fbff},
        {"-_8=\n", fbff},        {" -_\t8\r\n=", fbff},
        {"==-_=8", fbff},        {QString(), QByteArray()},
        {"+/8=", std::nullopt},  {"A", std::nullopt},
        {"AAAAA", std::nullopt}, {"AA\u00e9A", std::nullopt},
        {"AA.A", std::nullopt}};
    for (const auto &[text, bytes] : decoded)
        EXPECT_EQ(dataWithBase64EncodedString_URL_SAFE(text), bytes) << text.toStdString();
}

TEST(Encodings, StandardBase64ReaderSkipsForeignCharactersAndWantsUtf8)
{
    const QString dropbox = QStringLiteral("/Users/x/Dropbox");
    const std::pair<QString, std::optional<QString>> decoded[] = {
        {"L1VzZXJzL3gvRHJvcGJveA==", dropbox},
        {"L1VzZXJzL3gv\u00e9RHJvc*GJveA", dropbox},
        {"L3RtcC/DqXTDqQ==", QStringLiteral("/tmp/\u00e9t\u00e9")},
        {"77u/L3g=", QStringLiteral("\ufeff/x")},
        {QString(), std::nullopt},
        {"====", std::nullopt},
        {"//4=", std::nullopt}}; // bytes that are not UTF-8
    for (const auto &[text, expected] : decoded)
        EXPECT_EQ(base64DecodedString(text), expected) << text.toStdString();
}

TEST(Encodings, ZlibStreamsInflateWithZlib)
{
    EXPECT_EQ(zlibDeflate(QByteArray()), QByteArray());

    // Incompressible input larger than several growth steps exercises the buffer growth.
    for (const QByteArray &input : {QByteArray("{}"), QByteArray(100000, 'a'), randomBytes(50000, 7)}) {
        const std::optional<QByteArray> stream = zlibDeflate(input);
        ASSERT_TRUE(stream.has_value());
        // qUncompress inflates a plain zlib stream behind its own big-endian length.
        QByteArray framed(4, '\0');
        qToBigEndian(quint32(input.size()), framed.data());
        EXPECT_EQ(qUncompress(framed + *stream), input);
    }
}
