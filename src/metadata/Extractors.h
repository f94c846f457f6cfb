#pragma once

#include "metadata/ContentTypes.h"

#include <QString>

#include <utility>
#include <vector>

// What an extractor learned about one file: attributes by their query names (a list attribute such as
// kMDItemKeywords appears once per value) and the words to index.
struct Extraction
{
    bool failed = false; // crashed, stalled or unreadable: remembered until the file changes
    std::vector<std::pair<QString, QString>> attributes;
    QString text;
};

namespace Extractors {

// True when files of this type have something to extract.
bool wants(ContentTypes::Code code);

// Extracts one file. Text, mail and image headers are read in process; PDF and office documents in a child
// process that is killed after `timeoutMs`. At most `maxBytes` of text are kept. Never throws.
Extraction extract(const QString &path, ContentTypes::Code code, qint64 maxBytes, int timeoutMs);

// Whether extraction children run under an address-space limit. AddressSanitizer's shadow memory needs far
// more address space than any such limit, so sanitizer builds run their children without one.
constexpr bool childAddressSpaceIsLimited()
{
#if defined(__SANITIZE_ADDRESS__)
    return false;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
    return false;
#else
    return true;
#endif
#else
    return true;
#endif
}

// The tags of the `user.xdg.tags` extended attribute, comma-separated there.
QStringList tags(const QString &path);

} // namespace Extractors
