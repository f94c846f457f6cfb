// Feeds arbitrary text to the standard-base64 reader of the cloud client's host file: it must never crash,
// and what it returns is always valid, non-empty text.
#include "support/Encodings.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const QString text = QString::fromLatin1(reinterpret_cast<const char *>(data), qsizetype(size));
    const std::optional<QString> decoded = base64DecodedString(text);
    if (decoded && decoded->isEmpty())
        std::abort();
    return 0;
}
