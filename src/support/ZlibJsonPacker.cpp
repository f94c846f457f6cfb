#include "support/ZlibJsonPacker.h"

#include "support/Encodings.h"

#include <QJsonDocument>

#include <zlib.h>

namespace {

// Smaller arrays cost less to write than to compare with the kept one.
constexpr qsizetype kMinKeptElements = 512;

quint32 adlerOf(const QByteArray &bytes)
{
    return quint32(adler32_z(adler32_z(0, nullptr, 0), reinterpret_cast<const Bytef *>(bytes.constData()),
                             size_t(bytes.size())));
}

quint32 combinedAdler(quint32 first, quint32 second, qsizetype secondLength)
{
    return quint32(adler32_combine(first, second, z_off_t(secondLength)));
}

} // namespace

std::optional<ZlibJsonPacker::KeptArray> ZlibJsonPacker::keptFor(const QString &key, const QJsonArray &array)
{
    {
        const std::lock_guard guard(m_lock);
        // A list kept for its folder is handed out shared, so this is mostly a pointer comparison.
        if (m_kept && m_kept->key == key && m_kept->array == array)
            return m_kept;
    }
    const QByteArray text = QJsonDocument(array).toJson(QJsonDocument::Compact);
    const std::optional<QByteArray> deflated = rawDeflatePiece(text, false);
    if (!deflated)
        return std::nullopt;
    KeptArray kept{key, array, *deflated, adlerOf(text), text.size()};
    const std::lock_guard guard(m_lock);
    m_kept = kept;
    return kept;
}

std::optional<QByteArray> ZlibJsonPacker::pack(const QJsonObject &object)
{
    QString largestKey;
    QJsonArray largest;
    for (auto it = object.constBegin(); it != object.constEnd(); ++it) {
        if (it.value().isArray() && it.value().toArray().size() > largest.size()) {
            largestKey = it.key();
            largest = it.value().toArray();
        }
    }
    if (largest.size() < kMinKeptElements)
        return zlibDeflate(QJsonDocument(object).toJson(QJsonDocument::Compact));
    const std::optional<KeptArray> kept = keptFor(largestKey, largest);
    if (!kept)
        return std::nullopt;

    // The object's text is {before,"key":array,after}; its members keep their order.
    QJsonObject before;
    QJsonObject after;
    bool passed = false;
    for (auto it = object.constBegin(); it != object.constEnd(); ++it) {
        if (it.key() == largestKey)
            passed = true;
        else
            (passed ? after : before).insert(it.key(), it.value());
    }
    QByteArray head = QJsonDocument(before).toJson(QJsonDocument::Compact);
    head.chop(1);
    if (!before.isEmpty())
        head.append(',');
    head.append(QJsonDocument(QJsonArray{largestKey}).toJson(QJsonDocument::Compact).chopped(1).mid(1));
    head.append(':');
    QByteArray tail = QJsonDocument(after).toJson(QJsonDocument::Compact);
    if (after.isEmpty())
        tail = QByteArrayLiteral("}");
    else
        tail[0] = ',';

    const std::optional<QByteArray> headPiece = rawDeflatePiece(head, false);
    const std::optional<QByteArray> tailPiece = rawDeflatePiece(tail, true);
    if (!headPiece || !tailPiece)
        return std::nullopt;
    const quint32 adler =
        combinedAdler(combinedAdler(adlerOf(head), kept->adler, kept->length), adlerOf(tail), tail.size());
    QByteArray stream = zlibHeader();
    stream.reserve(stream.size() + headPiece->size() + kept->deflated.size() + tailPiece->size() + 4);
    stream.append(*headPiece).append(kept->deflated).append(*tailPiece);
    for (const int shift : {24, 16, 8, 0})
        stream.append(char((adler >> shift) & 0xff));
    return stream;
}
