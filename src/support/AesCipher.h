#pragma once

#include <QByteArray>
#include <QString>

#include <exception>
#include <optional>

// The symmetric cipher of encrypted requests and results: AES-256-CBC with PKCS#7 padding, whose key is
// the SHA-256 digest of the key bytes (a 32-byte key is used as it is) and whose IV is zero. The WebApp
// holds the same rules, so every detail here is part of the wire format.

// The cipher's named failures. name() and reason() are the texts the WebApp side knows, trailing full
// stops and blanks included.
class CipherException : public std::exception
{
public:
    CipherException(QString name, QString reason);
    const QString &name() const { return m_name; }
    const QString &reason() const { return m_reason; }
    const char *what() const noexcept override { return m_what.constData(); }

private:
    QString m_name;
    QString m_reason;
    QByteArray m_what;
};

enum class CipherOperation { Encrypt = 0, Decrypt = 1 };

// The option word: bit 0 selects PKCS#7 padding. Without it the input must be a whole number of blocks.
constexpr quint32 kCipherOptionPKCS7Padding = 1;

// The first 16 bytes of the SHA-1 digest; throws "SHA1Exception" when the digest cannot be made.
QByteArray sha1(const QByteArray &bytes);
// The 32-byte SHA-256 digest; throws "SHA256Exception" when the digest cannot be made.
QByteArray sha256(const QByteArray &bytes);

// One whole-buffer AES-CBC run. Key: 32 bytes as they are, any other length through sha256. IV: absent or
// exactly 16 bytes give 16 zero bytes (a 16-byte IV is discarded on purpose); any other length gives
// sha1(iv). Throws CipherException for the named failures (bad parameters, alignment, bad padding on
// decryption, memory); returns none for any other failure. The result holds only the bytes produced.
std::optional<QByteArray> cipher(const QByteArray &key, const QByteArray &input,
                                 const std::optional<QByteArray> &iv, CipherOperation operation,
                                 quint32 options);

// Encryption as the relay traffic uses it. The IV argument is honoured by cipher's rules.
std::optional<QByteArray> encrypt(const QByteArray &input, const QByteArray &key,
                                  const std::optional<QByteArray> &iv = std::nullopt,
                                  quint32 options = kCipherOptionPKCS7Padding);
// Decryption always runs with the zero IV: the iv argument is accepted and ignored, as the peers expect.
std::optional<QByteArray> decrypt(const QByteArray &input, const QByteArray &key,
                                  const std::optional<QByteArray> &iv = std::nullopt,
                                  quint32 options = kCipherOptionPKCS7Padding);

// The forms the request engine uses: the key is the UTF-8 bytes of the text.
std::optional<QByteArray> encryptWithString(const QByteArray &input, const QString &key);
std::optional<QByteArray> decryptWithString(const QByteArray &input, const QString &key);
