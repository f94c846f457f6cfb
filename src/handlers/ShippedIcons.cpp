#include "handlers/ShippedIcons.h"

#include <map>

namespace ShippedIcons {

namespace {

using vips::VImage;
using Ink = std::vector<double>;

constexpr int kSize = 256;

VImage canvas()
{
    return (VImage::black(kSize, kSize, VImage::option()->set("bands", 4)).cast(VIPS_FORMAT_UCHAR))
        .copy(VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB))
        .copy_memory();
}

void rect(VImage &image, const Ink &ink, int left, int top, int width, int height)
{
    image.draw_rect(ink, left, top, width, height, VImage::option()->set("fill", true));
}

void circle(VImage &image, const Ink &ink, int x, int y, int radius)
{
    image.draw_circle(ink, x, y, radius, VImage::option()->set("fill", true));
}

VImage document(const Ink &band)
{
    VImage image = canvas();
    rect(image, {150, 150, 150, 255}, 50, 12, 156, 232);
    rect(image, {250, 250, 250, 255}, 56, 18, 144, 220);
    for (int line = 0; line < 4; ++line)
        rect(image, {200, 200, 200, 255}, 76, 56 + 24 * line, line == 3 ? 64 : 104, 10);
    rect(image, band, 56, 176, 144, 40);
    return image;
}

} // namespace

vips::VImage picture(const QString &name)
{
    if (name == u"computer") {
        VImage image = canvas();
        rect(image, {47, 59, 76, 255}, 24, 36, 208, 140);
        rect(image, {111, 168, 220, 255}, 36, 48, 184, 116);
        rect(image, {176, 182, 189, 255}, 104, 176, 48, 34);
        rect(image, {138, 144, 153, 255}, 64, 210, 128, 12);
        return image;
    }
    if (name == u"icloud") {
        VImage image = canvas();
        const Ink blue{90, 169, 240, 255};
        circle(image, blue, 88, 150, 44);
        circle(image, blue, 136, 112, 60);
        circle(image, blue, 184, 150, 40);
        rect(image, blue, 88, 150, 96, 44);
        return image;
    }
    if (name == u"folder") {
        VImage image = canvas();
        rect(image, {74, 144, 217, 255}, 16, 56, 96, 40);
        rect(image, {74, 144, 217, 255}, 16, 76, 224, 140);
        rect(image, {106, 170, 240, 255}, 16, 96, 224, 120);
        return image;
    }
    static const std::map<QString, Ink> bands = {
        {QStringLiteral("image"), {63, 156, 53, 255}},  {QStringLiteral("audio"), {194, 65, 12, 255}},
        {QStringLiteral("video"), {124, 58, 237, 255}}, {QStringLiteral("text"), {95, 99, 104, 255}},
        {QStringLiteral("pdf"), {217, 48, 37, 255}},    {QStringLiteral("archive"), {141, 110, 99, 255}},
    };
    const auto band = bands.find(name);
    return document(band == bands.end() ? Ink{158, 158, 158, 255} : band->second);
}

QString nameForMimeType(const QString &mimeType)
{
    if (mimeType == u"inode/directory")
        return QStringLiteral("folder");
    if (mimeType == u"application/pdf")
        return QStringLiteral("pdf");
    for (const char *family : {"image", "audio", "video", "text"}) {
        if (mimeType.startsWith(QLatin1String(family) + u'/'))
            return QString::fromLatin1(family);
    }
    if (mimeType.contains(u"zip") || mimeType.contains(u"tar") || mimeType.contains(u"compressed"))
        return QStringLiteral("archive");
    return QStringLiteral("document");
}

} // namespace ShippedIcons
