#include "relay/RelayEnvelope.h"

#include "support/Encodings.h"

#include <zlib.h>

namespace {

std::optional<QByteArray> inflateCapped(const QByteArray &packed, qsizetype maxBytes)
{
    z_stream stream{};
    if (inflateInit(&stream) != Z_OK)
        return std::nullopt;
    stream.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(packed.constData()));
    stream.avail_in = uInt(packed.size());
    QByteArray out;
    char chunk[16384];
    int status = Z_OK;
    while (status == Z_OK) {
        stream.next_out = reinterpret_cast<Bytef *>(chunk);
        stream.avail_out = sizeof chunk;
        status = inflate(&stream, Z_NO_FLUSH);
        if (status != Z_OK && status != Z_STREAM_END)
            break;
        out.append(chunk, qsizetype(sizeof chunk - stream.avail_out));
        if (out.size() > maxBytes) {
            status = Z_MEM_ERROR;
            break;
        }
        if (status == Z_OK && stream.avail_in == 0 && stream.avail_out != 0) {
            status = Z_DATA_ERROR;
            break;
        }
    }
    inflateEnd(&stream);
    if (status != Z_STREAM_END)
        return std::nullopt;
    return out;
}

} // namespace

std::optional<QJsonDocument> unpackRelayEnvelope(const QByteArray &text, qsizetype maxBytes)
{
    const std::optional<QByteArray> packed = dataWithBase64EncodedString_URL_SAFE(QString::fromLatin1(text));
    if (!packed || packed->isEmpty())
        return std::nullopt;
    const std::optional<QByteArray> json = inflateCapped(*packed, maxBytes);
    if (!json)
        return std::nullopt;
    QJsonParseError error;
    QJsonDocument document = QJsonDocument::fromJson(*json, &error);
    if (error.error != QJsonParseError::NoError)
        return std::nullopt;
    return document;
}
