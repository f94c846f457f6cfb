#include "support/Encodings.h"

#include <QStringDecoder>

#include <zlib.h>

#include <array>
#include <cctype>

namespace {

constexpr char kUrlSafeAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
constexpr char kStandardAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr int kInvalid = -1;
constexpr qsizetype kDeflateStep = 16384;
constexpr qsizetype kMaxDeflatePiece = qsizetype(1) << 30;

constexpr std::array<int, 256> decodeTable(const char *alphabet)
{
    std::array<int, 256> table{};
    table.fill(kInvalid);
    for (int value = 0; value < 64; ++value)
        table[static_cast<unsigned char>(alphabet[value])] = value;
    return table;
}

constexpr auto kUrlSafeValues = decodeTable(kUrlSafeAlphabet);
constexpr auto kStandardValues = decodeTable(kStandardAlphabet);

// Turns 2 to 4 gathered 6-bit symbols into 1 to 3 bytes.
void flushGroup(const int *symbols, int count, QByteArray &out)
{
    const quint32 bits = (quint32(symbols[0]) << 18) | (quint32(count > 1 ? symbols[1] : 0) << 12) |
                         (quint32(count > 2 ? symbols[2] : 0) << 6) | quint32(count > 3 ? symbols[3] : 0);
    out.append(char(bits >> 16));
    if (count > 2)
        out.append(char((bits >> 8) & 0xff));
    if (count > 3)
        out.append(char(bits & 0xff));
}

} // namespace

QString base64Encoding_URL_SAFE(const QByteArray &bytes)
{
    QString text;
    text.reserve(4 * ((bytes.size() + 2) / 3));
    const auto *in = reinterpret_cast<const unsigned char *>(bytes.constData());
    const qsizetype n = bytes.size();
    for (qsizetype i = 0; i < n; i += 3) {
        const quint32 b0 = in[i];
        const quint32 b1 = i + 1 < n ? in[i + 1] : 0;
        const quint32 b2 = i + 2 < n ? in[i + 2] : 0;
        text.append(QLatin1Char(kUrlSafeAlphabet[b0 >> 2]));
        text.append(QLatin1Char(kUrlSafeAlphabet[((b0 & 0x03) << 4) | (b1 >> 4)]));
        text.append(i + 1 < n ? QLatin1Char(kUrlSafeAlphabet[((b1 & 0x0f) << 2) | (b2 >> 6)])
                              : QLatin1Char('='));
        text.append(i + 2 < n ? QLatin1Char(kUrlSafeAlphabet[b2 & 0x3f]) : QLatin1Char('='));
    }
    return text;
}

std::optional<QByteArray> dataWithBase64EncodedString_URL_SAFE(const QString &text)
{
    QByteArray out;
    out.reserve(3 * ((text.size() + 3) / 4));
    int group[4];
    int count = 0;
    for (const QChar ch : text) {
        const char16_t unit = ch.unicode();
        if (unit > 0x7f)
            return std::nullopt;
        if (unit == u'=' || std::isspace(static_cast<unsigned char>(unit)))
            continue;
        const int value = kUrlSafeValues[unit];
        if (value == kInvalid)
            return std::nullopt;
        group[count++] = value;
        if (count == 4) {
            flushGroup(group, 4, out);
            count = 0;
        }
    }
    if (count == 1)
        return std::nullopt;
    if (count > 1)
        flushGroup(group, count, out);
    return out;
}

namespace {

// Every answer to the WebApp is packed here on its way out: the fastest level takes a fifth of the default's
// time for about a fifth more bytes, and a large listing's answer is otherwise mostly this.
constexpr int kDeflateLevel = Z_BEST_SPEED;

// Deflates all of the bytes into a stream set up with the given window bits (zlib-wrapped or raw), ending
// with the given flush, which must complete: Z_FINISH or Z_SYNC_FLUSH.
std::optional<QByteArray> deflateWhole(const QByteArray &bytes, int windowBits, int lastFlush)
{
    z_stream stream{};
    if (deflateInit2(&stream, kDeflateLevel, Z_DEFLATED, windowBits, 8, Z_DEFAULT_STRATEGY) != Z_OK)
        return std::nullopt;
    stream.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(bytes.constData()));
    qsizetype unread = bytes.size();

    QByteArray out(kDeflateStep, Qt::Uninitialized);
    // Grow in fixed steps until the last flush leaves room to spare: then it is complete.
    int flush = Z_NO_FLUSH;
    do {
        // zlib counts input in 32 bits: larger input goes in pieces, and only the last piece flushes.
        if (stream.avail_in == 0 && unread > 0) {
            stream.avail_in = static_cast<uInt>(qMin<qsizetype>(unread, kMaxDeflatePiece));
            unread -= stream.avail_in;
        }
        flush = unread == 0 ? lastFlush : Z_NO_FLUSH;
        if (stream.total_out >= uLong(out.size()))
            out.resize(out.size() + kDeflateStep);
        stream.next_out = reinterpret_cast<Bytef *>(out.data()) + stream.total_out;
        stream.avail_out = static_cast<uInt>(out.size() - qsizetype(stream.total_out));
        deflate(&stream, flush);
    } while (stream.avail_out == 0 || flush != lastFlush);
    deflateEnd(&stream);
    out.resize(qsizetype(stream.total_out));
    return out;
}

} // namespace

std::optional<QByteArray> zlibDeflate(const QByteArray &bytes)
{
    if (bytes.isEmpty())
        return QByteArray();
    return deflateWhole(bytes, MAX_WBITS, Z_FINISH);
}

std::optional<QByteArray> rawDeflatePiece(const QByteArray &bytes, bool last)
{
    return deflateWhole(bytes, -MAX_WBITS, last ? Z_FINISH : Z_SYNC_FLUSH);
}

QByteArray zlibHeader()
{
    // CMF 0x78 (deflate, 32 KB window), FLG 0x01: the fastest level, and a multiple of 31 with CMF.
    static_assert(kDeflateLevel == Z_BEST_SPEED);
    return QByteArrayLiteral("\x78\x01");
}

std::optional<QString> base64DecodedString(const QString &text)
{
    const QByteArray ascii = text.toLatin1();
    QByteArray out;
    out.reserve(3 * ((ascii.size() + 3) / 4));
    int group[4];
    int count = 0;
    for (const char ch : ascii) {
        const int value = kStandardValues[static_cast<unsigned char>(ch)];
        if (value == kInvalid)
            continue;
        group[count++] = value;
        if (count == 4) {
            flushGroup(group, 4, out);
            count = 0;
        }
    }
    if (count > 1)
        flushGroup(group, count, out);
    if (out.isEmpty())
        return std::nullopt;
    // A leading byte-order mark is kept as the character it is: dropping it would name another path, and
    // a mark alone would come out as the empty text that callers are promised never to see.
    QStringDecoder decoder(QStringDecoder::Utf8,
                           QStringDecoder::Flag::Stateless | QStringDecoder::Flag::ConvertInitialBom);
    QString decoded = decoder(out);
    if (decoder.hasError())
        return std::nullopt;
    return decoded;
}
