#pragma once

#include <QByteArray>
#include <QJsonArray>
#include <QJsonObject>
#include <QString>

#include <mutex>
#include <optional>

// Packs objects as zlib streams of their compact JSON text, for answers that carry the same large array
// time after time (a folder's thousands of sub-folders, answer after answer while the folder is unchanged).
// The largest array member's text is deflated once and kept; while the next object's member of that name
// equals it, only the rest is written and deflated, and the kept piece is joined in between. The stream
// inflates to exactly the text QJsonDocument writes.
class ZlibJsonPacker
{
public:
    // None only when zlib fails. Safe to call from any thread.
    std::optional<QByteArray> pack(const QJsonObject &object);

private:
    struct KeptArray
    {
        QString key;
        QJsonArray array;
        QByteArray deflated; // a raw deflate piece that leaves the stream open
        quint32 adler = 0;
        qsizetype length = 0;
    };

    std::optional<KeptArray> keptFor(const QString &key, const QJsonArray &array);

    std::mutex m_lock;
    std::optional<KeptArray> m_kept; // guarded by m_lock
};
