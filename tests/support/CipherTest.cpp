#include "support/AesCipher.h"

#include <QCryptographicHash>
#include <QProcess>

#include <gtest/gtest.h>

namespace {

// Runs `openssl enc -aes-256-cbc` with an explicit key and the zero IV, as any peer implementation would.
QByteArray opensslEnc(const QByteArray &input, const QByteArray &key, bool decrypt)
{
    QStringList args{QStringLiteral("enc"), QStringLiteral("-aes-256-cbc"),
                     QStringLiteral("-K"),  QString::fromLatin1(key.toHex()),
                     QStringLiteral("-iv"), QString(32, u'0')};
    if (decrypt)
        args << QStringLiteral("-d");
    QProcess openssl;
    openssl.start(QStringLiteral("openssl"), args);
    EXPECT_TRUE(openssl.waitForStarted(10000));
    openssl.write(input);
    openssl.closeWriteChannel();
    EXPECT_TRUE(openssl.waitForFinished(30000));
    EXPECT_EQ(openssl.exitCode(), 0) << openssl.readAllStandardError().toStdString();
    return openssl.readAllStandardOutput();
}

QString exceptionName(const std::function<void()> &call)
{
    try {
        call();
    } catch (const CipherException &exception) {
        return exception.name() + u'|' + exception.reason();
    }
    return QStringLiteral("no exception");
}

} // namespace

TEST(Cipher, InteroperatesWithOpensslCommandLine)
{
    const QString keyString = QStringLiteral("4Zq9computerid___s\u00e9cret");
    const QByteArray derivedKey = QCryptographicHash::hash(keyString.toUtf8(), QCryptographicHash::Sha256);
    const QByteArray plain = QByteArray("{\"request_type\":\"search\",\"path\":\"/home/x\"}").repeated(3);

    const std::optional<QByteArray> ours = encryptWithString(plain, keyString);
    ASSERT_TRUE(ours.has_value());
    EXPECT_EQ(opensslEnc(*ours, derivedKey, true), plain);

    const QByteArray theirs = opensslEnc(plain, derivedKey, false);
    EXPECT_EQ(theirs, *ours);
    EXPECT_EQ(decryptWithString(theirs, keyString), plain);

    // A 32-byte key string is the AES key itself, not hashed.
    const QString rawKey = QStringLiteral("0123456789abcdef0123456789abcdef");
    EXPECT_EQ(opensslEnc(*encryptWithString("k", rawKey), rawKey.toUtf8(), true), QByteArray("k"));
}

TEST(Cipher, SizesAndInitialValueRules)
{
    const QByteArray key("k");
    EXPECT_EQ(encrypt(QByteArray(), key)->size(), 16);
    EXPECT_EQ(encrypt(QByteArray(16, 'x'), key)->size(), 32);

    const QByteArray plain("sixteen byte iv is thrown away");
    const QByteArray zeroIv = *encrypt(plain, key);
    EXPECT_EQ(*encrypt(plain, key, QByteArray(16, '\x7f')), zeroIv);
    // Another IV length is digested, and decryption ignores any IV: only the first block comes out wrong.
    const QByteArray otherIv = *encrypt(plain, key, QByteArray("short iv"));
    EXPECT_NE(otherIv, zeroIv);
    EXPECT_EQ(decrypt(zeroIv, key, QByteArray("any")), plain);
    EXPECT_EQ(decrypt(otherIv, key)->mid(16), plain.mid(16));
    EXPECT_EQ(sha1("abc").toHex(), QByteArray("a9993e364706816aba3e25717850c26c"));

    // Without padding the input must be whole blocks.
    EXPECT_EQ(encrypt(QByteArray(32, 'y'), key, std::nullopt, 0)->size(), 32);
}

TEST(Cipher, FailuresRaiseTheirNamedExceptions)
{
    EXPECT_EQ(exceptionName([&] { decrypt(QByteArray(15, 'z'), "k"); }),
              QStringLiteral("InputAlignmentException|Input size was not aligned properly. "));
    EXPECT_EQ(exceptionName([&] { encrypt(QByteArray(15, 'z'), "k", std::nullopt, 0); }),
              QStringLiteral("InputAlignmentException|Input size was not aligned properly. "));
    EXPECT_EQ(exceptionName([&] { encrypt("x", "k", std::nullopt, 2); }),
              QStringLiteral("IllegalParameterValueException|Illegal parameter value."));
    // No padding to strip fails as a wrong key's garbled padding does.
    EXPECT_EQ(exceptionName([&] { decrypt(QByteArray(), "k"); }),
              QStringLiteral("DecryptionException.|Input data did not decode or decrypt properly."));
}
