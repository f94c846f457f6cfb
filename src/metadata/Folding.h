#pragma once

#include <QByteArray>
#include <QStringView>

#include <string_view>
#include <vector>

// Search folding: compatibility decomposition (NFKD), combining marks removed, case folded, a few letters
// that have no decomposition spelled out (ß → ss, æ → ae, ø → o...). Names are folded once when indexed and
// query values the same way, so "resume" meets "Résumé" and "ZURICH" meets "zürich".
namespace Folding {

// The folded text as UTF-8. ASCII input takes a fast path (a lower-casing copy).
QByteArray fold(QStringView text);
QByteArray fold(std::string_view utf8);

// True when `c` belongs to a word: letters and digits of any script; every byte of a multi-byte UTF-8
// sequence counts as a word byte, so folded non-Latin words stay whole.
inline bool isWordByte(unsigned char c)
{
    return c >= 0x80 || (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

// The words of folded text, in order; a view into `folded`.
std::vector<std::string_view> words(std::string_view folded);

// True when some word of `folded` begins with `prefix` (itself folded).
bool hasWordWithPrefix(std::string_view folded, std::string_view prefix);

} // namespace Folding
