#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>

#include <optional>

// "thumb" and "preview": a picture of an item, returned inline in the result (base64url) and as the
// operation's raw bytes, which an encrypted reply sends instead.
class ThumbnailHandler
{
public:
    // The item path, box and format of a thumbnail request's "path": "<item>.<stamp>.<width>.<height>.<ext>".
    struct ThumbRequest
    {
        QString itemPath;
        int width = 128;
        int height = 128;
        bool png = false;
    };
    static ThumbRequest parseThumbPath(const QString &path);

    // Fills "thumb" (JPEG at 0.54, or PNG when the extension is "png") and the raw bytes.
    static void handleThumbRequest(QJsonObject &request, QByteArray *outRawData);
    // Fills "preview": the item ("path" without its last extension) as a 768 × 1024 JPEG at 0.64.
    static void handlePreviewRequest(QJsonObject &request, QByteArray *outRawData);

    // A pixel size from text: 128 unless it is a number above 2 and at most 4096.
    static int getDimension(const QString &text);
};
