#include "handlers/ThumbnailHandler.h"

#include "handlers/vd_ImageUtils.h"
#include "support/Encodings.h"

namespace {

constexpr double kThumbQuality = 0.54;
constexpr double kPreviewQuality = 0.64;
constexpr int kPreviewWidth = 768;
constexpr int kPreviewHeight = 1024;

// Cuts the last dot-separated part off `text` and returns it.
QString takeLastPart(QString &text)
{
    const qsizetype dot = text.lastIndexOf(u'.');
    if (dot < 0) {
        const QString all = text;
        text.clear();
        return all;
    }
    const QString part = text.mid(dot + 1);
    text.truncate(dot);
    return part;
}

void deliver(QJsonObject &request, const QString &key, const std::optional<QByteArray> &image,
             QByteArray *outRawData)
{
    if (outRawData)
        *outRawData = image.value_or(QByteArray());
    if (image)
        request.insert(key, base64Encoding_URL_SAFE(*image));
}

} // namespace

int ThumbnailHandler::getDimension(const QString &text)
{
    bool ok = false;
    const double value = text.toDouble(&ok);
    if (!ok || !(value > 2) || value > 4096)
        return 128;
    return int(value);
}

ThumbnailHandler::ThumbRequest ThumbnailHandler::parseThumbPath(const QString &path)
{
    QString rest = path;
    ThumbRequest parsed;
    parsed.png = takeLastPart(rest) == u"png";
    parsed.height = getDimension(takeLastPart(rest));
    parsed.width = getDimension(takeLastPart(rest));
    // The root folder's stamp cannot be split off: "/" + "." + ten digits reads as a hidden name.
    if (rest.startsWith(u"/.1") && rest.size() == 12)
        parsed.itemPath = QStringLiteral("/");
    else if (rest == u".0") // the computer item: an empty path with a stamp of 0
        parsed.itemPath = vd_ImageUtils::kComputerPath;
    else {
        takeLastPart(rest);
        parsed.itemPath = rest;
    }
    return parsed;
}

void ThumbnailHandler::handleThumbRequest(QJsonObject &request, QByteArray *outRawData)
{
    const ThumbRequest thumb = parseThumbPath(request.value(QStringLiteral("path")).toString());
    deliver(
        request, QStringLiteral("thumb"),
        vd_ImageUtils::imageDataForPath(thumb.itemPath, thumb.width, thumb.height, !thumb.png, kThumbQuality),
        outRawData);
}

void ThumbnailHandler::handlePreviewRequest(QJsonObject &request, QByteArray *outRawData)
{
    QString item = request.value(QStringLiteral("path")).toString();
    // The format suffix belongs to the last component: "/a.b/Makefile" names Makefile itself.
    if (item.lastIndexOf(u'.') > item.lastIndexOf(u'/'))
        takeLastPart(item);
    deliver(request, QStringLiteral("preview"),
            vd_ImageUtils::imageDataForPath(item, kPreviewWidth, kPreviewHeight, true, kPreviewQuality),
            outRawData);
}
