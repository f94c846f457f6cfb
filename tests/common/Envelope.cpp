#include "Envelope.h"

#include <zlib.h>

QJsonDocument unpackEnvelope(const QString &text)
{
    const QByteArray packed = QByteArray::fromBase64(text.toLatin1(), QByteArray::Base64UrlEncoding);
    QByteArray out(16 << 20, Qt::Uninitialized);
    uLongf length = uLongf(out.size());
    if (uncompress(reinterpret_cast<Bytef *>(out.data()), &length,
                   reinterpret_cast<const Bytef *>(packed.constData()), uLong(packed.size())) != Z_OK)
        return {};
    out.truncate(qsizetype(length));
    return QJsonDocument::fromJson(out);
}
