#include "metadata/Folding.h"

#include <QList>
#include <QString>

namespace {

bool isAscii(std::string_view text)
{
    for (unsigned char c : text) {
        if (c >= 0x80)
            return false;
    }
    return true;
}

QByteArray asciiLower(std::string_view text)
{
    QByteArray out(qsizetype(text.size()), Qt::Uninitialized);
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        out[qsizetype(i)] = (c >= 'A' && c <= 'Z') ? char(c + 32) : c;
    }
    return out;
}

// Letters that neither decompose nor case-fold into their Latin base.
const char16_t *spelledOut(char32_t c)
{
    switch (c) {
    case U'ß':
    case U'ẞ':
        return u"ss";
    case U'æ':
    case U'Æ':
        return u"ae";
    case U'œ':
    case U'Œ':
        return u"oe";
    case U'ø':
    case U'Ø':
        return u"o";
    case U'đ':
    case U'Đ':
        return u"d";
    case U'ł':
    case U'Ł':
        return u"l";
    case U'þ':
    case U'Þ':
        return u"th";
    case U'ı':
        return u"i";
    default:
        return nullptr;
    }
}

} // namespace

namespace Folding {

QByteArray fold(std::string_view utf8)
{
    if (isAscii(utf8))
        return asciiLower(utf8);
    return fold(QString::fromUtf8(utf8.data(), qsizetype(utf8.size())));
}

QByteArray fold(QStringView text)
{
    bool ascii = true;
    for (QChar c : text) {
        if (c.unicode() >= 0x80) {
            ascii = false;
            break;
        }
    }
    if (ascii)
        return text.toLatin1().toLower();

    const QString decomposed = text.toString().normalized(QString::NormalizationForm_KD);
    QString out;
    out.reserve(decomposed.size());
    for (const char32_t c : decomposed.toUcs4()) {
        switch (QChar::category(c)) {
        case QChar::Mark_NonSpacing:
        case QChar::Mark_SpacingCombining:
        case QChar::Mark_Enclosing:
            continue;
        default:
            break;
        }
        if (const char16_t *spelled = spelledOut(c)) {
            out += QString::fromUtf16(spelled);
            continue;
        }
        const char32_t folded = QChar::toCaseFolded(c);
        if (QChar::requiresSurrogates(folded)) {
            out += QChar(QChar::highSurrogate(folded));
            out += QChar(QChar::lowSurrogate(folded));
        } else {
            out += QChar(char16_t(folded));
        }
    }
    return out.toUtf8();
}

std::vector<std::string_view> words(std::string_view folded)
{
    std::vector<std::string_view> result;
    size_t i = 0;
    while (i < folded.size()) {
        while (i < folded.size() && !isWordByte(static_cast<unsigned char>(folded[i])))
            ++i;
        const size_t start = i;
        while (i < folded.size() && isWordByte(static_cast<unsigned char>(folded[i])))
            ++i;
        if (i > start)
            result.push_back(folded.substr(start, i - start));
    }
    return result;
}

bool hasWordWithPrefix(std::string_view folded, std::string_view prefix)
{
    if (prefix.empty())
        return true;
    size_t pos = 0;
    while ((pos = folded.find(prefix, pos)) != std::string_view::npos) {
        if (pos == 0 || !isWordByte(static_cast<unsigned char>(folded[pos - 1])))
            return true;
        ++pos;
    }
    return false;
}

} // namespace Folding
