// Feeds arbitrary text to the standard-base64 reader of the cloud client's host file. It must never crash;
// what it returns is non-empty text whose UTF-8 holds exactly as many bytes as its symbols carry, and Qt's
// own encoder, an independent witness, turns those bytes into base64 that reads back to the same text.
#include "support/Encodings.h"

#include <cstdlib>

namespace {

qsizetype carriedBytes(const QString &text)
{
    qsizetype symbols = 0;
    for (const QChar ch : text)
        symbols += (ch.unicode() < 0x80 && ch.isLetterOrNumber()) || ch == u'+' || ch == u'/';
    return symbols / 4 * 3 + qMax<qsizetype>(0, symbols % 4 - 1);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QString text = QString::fromLatin1(reinterpret_cast<const char *>(data), qsizetype(size));
    const std::optional<QString> decoded = base64DecodedString(text);
    if (!decoded)
        return 0;
    const QByteArray bytes = decoded->toUtf8();
    if (bytes.isEmpty() || bytes.size() != carriedBytes(text))
        std::abort();
    if (base64DecodedString(QString::fromLatin1(bytes.toBase64())) != decoded)
        std::abort();
    return 0;
}
