#pragma once

#include <QByteArray>
#include <QMetaType>
#include <QString>

#include <optional>

// One file part of a multipart POST. Put it in a connection's parameters as QVariant::fromValue(data); any
// such value turns the body of the POST into multipart/form-data.
class FSNData
{
public:
    // A fixed underlying type, so that a stray number read from elsewhere is a value and not undefined.
    enum MimeType : int { MimeTypeNone = 0, MimeTypeJSON = 1, MimeTypeJPEG = 2 };

    FSNData() = default;
    FSNData(QByteArray data, MimeType mimeType = MimeTypeNone,
            std::optional<QString> fileName = std::nullopt);

    // Reads the whole file into memory, with no mime type. None when the file cannot be read.
    static std::optional<FSNData> withDataPath(const QString &path,
                                               std::optional<QString> fileName = std::nullopt);

    const QByteArray &data() const { return m_data; }
    MimeType mimeType() const { return m_mimeType; }
    const std::optional<QString> &fileName() const { return m_fileName; }

    // "application/json" or "image/jpeg"; none for MimeTypeNone, and none with a log line for a value
    // outside the enumeration.
    std::optional<QString> mimeTypeString() const;

private:
    QByteArray m_data;
    MimeType m_mimeType = MimeTypeNone;
    std::optional<QString> m_fileName;
};

Q_DECLARE_METATYPE(FSNData)
