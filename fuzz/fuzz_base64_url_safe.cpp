// Feeds arbitrary text to the URL-safe base64 decoder, which reads what the relay sends, and checks that
// whatever it accepts re-encodes to the same bytes and stays within the length bound.
#include "support/Encodings.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QString text = QString::fromUtf8(reinterpret_cast<const char *>(data), qsizetype(size));
    const std::optional<QByteArray> decoded = dataWithBase64EncodedString_URL_SAFE(text);
    if (!decoded)
        return 0;
    if (decoded->size() > 3 * ((text.size() + 3) / 4))
        std::abort();
    if (dataWithBase64EncodedString_URL_SAFE(base64Encoding_URL_SAFE(*decoded)) != decoded)
        std::abort();
    return 0;
}
