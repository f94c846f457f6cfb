#include "support/AesCipher.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <memory>

namespace {

constexpr int kBlockSize = 16;
constexpr int kKeySize = 32;
constexpr qsizetype kMaxCipherPiece = qsizetype(1) << 30;

// The failure statuses the peers name, with the exception each one raises.
enum CipherStatus {
    kParamError = -4300,
    kBufferTooSmall = -4301,
    kMemoryFailure = -4302,
    kAlignmentError = -4303,
    kDecodeError = -4304,
    kUnimplemented = -4305,
};

[[noreturn]] void raise(CipherStatus status)
{
    switch (status) {
    case kParamError:
        throw CipherException(QStringLiteral("IllegalParameterValueException"),
                              QStringLiteral("Illegal parameter value."));
    case kBufferTooSmall:
        throw CipherException(QStringLiteral("InsufficentBufferException"),
                              QStringLiteral("Insufficent buffer provided for specified operation."));
    case kMemoryFailure:
        throw CipherException(QStringLiteral("MemoryAllocationFailure."),
                              QStringLiteral("Memory allocation failure."));
    case kAlignmentError:
        throw CipherException(QStringLiteral("InputAlignmentException"),
                              QStringLiteral("Input size was not aligned properly. "));
    case kDecodeError:
        throw CipherException(QStringLiteral("DecryptionException."),
                              QStringLiteral("Input data did not decode or decrypt properly."));
    case kUnimplemented:
        throw CipherException(QStringLiteral("FunctionNotImplementedException"),
                              QStringLiteral("Function not implemented for the current algorithm."));
    }
    Q_UNREACHABLE();
}

QByteArray digest(const EVP_MD *md, const QByteArray &bytes, const char *exceptionName)
{
    unsigned char out[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    if (EVP_Digest(bytes.constData(), size_t(bytes.size()), out, &length, md, nullptr) != 1)
        throw CipherException(QString::fromLatin1(exceptionName), QStringLiteral("Unknown"));
    QByteArray result(reinterpret_cast<const char *>(out), int(length));
    // The digest may be a derived key: leave no copy on the stack.
    OPENSSL_cleanse(out, sizeof out);
    return result;
}

// Holds key material and wipes it when it goes out of scope.
struct WipedBytes
{
    QByteArray bytes;
    ~WipedBytes() { OPENSSL_cleanse(bytes.data(), size_t(bytes.size())); }
};

} // namespace

CipherException::CipherException(QString name, QString reason)
    : m_name(std::move(name))
    , m_reason(std::move(reason))
    , m_what((m_name + QStringLiteral(": ") + m_reason).toUtf8())
{}

QByteArray sha1(const QByteArray &bytes)
{
    return digest(EVP_sha1(), bytes, "SHA1Exception").left(16);
}

QByteArray sha256(const QByteArray &bytes)
{
    return digest(EVP_sha256(), bytes, "SHA256Exception");
}

std::optional<QByteArray> cipher(const QByteArray &key, const QByteArray &input,
                                 const std::optional<QByteArray> &iv, CipherOperation operation,
                                 quint32 options)
{
    const WipedBytes effectiveKey{key.size() == kKeySize ? key : sha256(key)};
    const QByteArray effectiveIv =
        (!iv || iv->size() == kBlockSize) ? QByteArray(kBlockSize, '\0') : sha1(*iv);

    // CBC is the only mode; any option beyond padding is a parameter the peers never send.
    if (options & ~kCipherOptionPKCS7Padding)
        raise(kParamError);
    const bool padding = options & kCipherOptionPKCS7Padding;
    const bool encrypting = operation == CipherOperation::Encrypt;
    if (input.size() % kBlockSize != 0 && (!encrypting || !padding))
        raise(kAlignmentError);

    const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> context(EVP_CIPHER_CTX_new(),
                                                                                  EVP_CIPHER_CTX_free);
    if (!context)
        raise(kMemoryFailure);
    const auto *keyBytes = reinterpret_cast<const unsigned char *>(effectiveKey.bytes.constData());
    const auto *ivBytes = reinterpret_cast<const unsigned char *>(effectiveIv.constData());
    if (EVP_CipherInit_ex(context.get(), EVP_aes_256_cbc(), nullptr, keyBytes, ivBytes, encrypting ? 1 : 0) !=
        1)
        return std::nullopt;
    EVP_CIPHER_CTX_set_padding(context.get(), padding ? 1 : 0);

    // Room for the input rounded down to whole blocks plus one block of padding.
    QByteArray output((input.size() / kBlockSize) * kBlockSize + kBlockSize, '\0');
    auto *out = reinterpret_cast<unsigned char *>(output.data());
    const auto *in = reinterpret_cast<const unsigned char *>(input.constData());
    qsizetype moved = 0;
    // EVP counts in int: larger input goes in whole-block pieces, one call each.
    for (qsizetype done = 0; done < input.size();) {
        const int piece = int(qMin(input.size() - done, kMaxCipherPiece));
        int pieceMoved = 0;
        if (EVP_CipherUpdate(context.get(), out + moved, &pieceMoved, in + done, piece) != 1)
            return std::nullopt;
        moved += pieceMoved;
        done += piece;
    }
    int finalMoved = 0;
    if (EVP_CipherFinal_ex(context.get(), out + moved, &finalMoved) != 1) {
        OPENSSL_cleanse(output.data(), size_t(output.size()));
        if (!encrypting)
            raise(kDecodeError);
        return std::nullopt;
    }
    output.truncate(moved + finalMoved);
    return output;
}

std::optional<QByteArray> encrypt(const QByteArray &input, const QByteArray &key,
                                  const std::optional<QByteArray> &iv, quint32 options)
{
    return cipher(key, input, iv, CipherOperation::Encrypt, options);
}

std::optional<QByteArray> decrypt(const QByteArray &input, const QByteArray &key,
                                  const std::optional<QByteArray> &, quint32 options)
{
    return cipher(key, input, std::nullopt, CipherOperation::Decrypt, options);
}

std::optional<QByteArray> encryptWithString(const QByteArray &input, const QString &key)
{
    const WipedBytes keyBytes{key.toUtf8()};
    return encrypt(input, keyBytes.bytes);
}

std::optional<QByteArray> decryptWithString(const QByteArray &input, const QString &key)
{
    const WipedBytes keyBytes{key.toUtf8()};
    return decrypt(input, keyBytes.bytes);
}
