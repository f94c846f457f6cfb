#include "support/FSNData.h"

#include "support/Logging.h"

#include <QFile>

FSNData::FSNData(QByteArray data, MimeType mimeType, std::optional<QString> fileName)
    : m_data(std::move(data))
    , m_mimeType(mimeType)
    , m_fileName(std::move(fileName))
{}

std::optional<FSNData> FSNData::withDataPath(const QString &path, std::optional<QString> fileName)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    QByteArray bytes = file.readAll();
    if (file.error() != QFileDevice::NoError)
        return std::nullopt;
    return FSNData(std::move(bytes), MimeTypeNone, std::move(fileName));
}

std::optional<QString> FSNData::mimeTypeString() const
{
    switch (m_mimeType) {
    case MimeTypeNone:
        return std::nullopt;
    case MimeTypeJSON:
        return QStringLiteral("application/json");
    case MimeTypeJPEG:
        return QStringLiteral("image/jpeg");
    }
    qCWarning(lcSupport, "ERROR: FSNData: unknown MimeType: %d", int(m_mimeType));
    return std::nullopt;
}
