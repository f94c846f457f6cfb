#include "handlers/vd_ImageUtils.h"

#include "handlers/ExternalThumbnailer.h"
#include "handlers/HandlersLog.h"
#include "handlers/Places.h"
#include "handlers/ShippedIcons.h"
#include "handlers/ThumbnailCache.h"
#include "support/Logging.h"

#include <QFile>
#include <QFileInfo>
#include <QMimeDatabase>
#include <QSemaphore>
#include <QStandardPaths>

#include <cmath>
#include <mutex>

namespace {

using vips::VImage;

// At most two images are decoded at once, so four concurrent requests cannot hold four full-size decodes.
QSemaphore s_decodes(2);

struct DecodeSlot
{
    DecodeSlot() { s_decodes.acquire(); }
    ~DecodeSlot() { s_decodes.release(); }
};

void ensureVips()
{
    static std::once_flag started;
    std::call_once(started, [] {
        if (VIPS_INIT("vandrel") != 0)
            qCCritical(lcHandlers).noquote() << "libvips could not start:" << vips_error_buffer();
        // Every request reads a different file: caching operations would only hold memory.
        vips_cache_set_max(0);
        // Loaders that are not safe on files from strangers (ImageMagick, and the like) stay off.
        vips_block_untrusted_set(TRUE);
    });
}

QByteArray native(const QString &path)
{
    return QFile::encodeName(path);
}

// Types libvips decodes in this process; everything else goes to a child process or the icon.
bool decodesInProcess(const QString &mimeType)
{
    static const QStringList types = {
        QStringLiteral("image/jpeg"), QStringLiteral("image/png"),  QStringLiteral("image/webp"),
        QStringLiteral("image/gif"),  QStringLiteral("image/tiff"), QStringLiteral("image/heif"),
        QStringLiteral("image/heic"), QStringLiteral("image/avif"), QStringLiteral("image/jxl"),
    };
    return types.contains(mimeType);
}

// The kept rectangle of a width × height picture under the 4:1 rule.
std::pair<qint64, qint64> croppedSize(qint64 width, qint64 height)
{
    const qint64 keptHeight = std::min(height, 4 * width);
    return {std::min(width, 4 * keptHeight), keptHeight};
}

// The scale that fits the cropped picture into the box, never above 1.
float fitScale(qint64 width, qint64 height, int boxWidth, int boxHeight)
{
    const auto [keptWidth, keptHeight] = croppedSize(width, height);
    return std::min(1.0f, std::min(float(boxWidth) / float(keptWidth), float(boxHeight) / float(keptHeight)));
}

// Decodes an image file shrunk to fit `size` × `size` (never enlarged), within the decode limit.
std::optional<VImage> decodeFitting(const QString &path, int size)
{
    const DecodeSlot slot;
    return VImage::thumbnail(native(path).constData(), size,
                             VImage::option()
                                 ->set("height", size)
                                 ->set("size", VIPS_SIZE_DOWN)
                                 ->set("fail_on", VIPS_FAIL_ON_ERROR))
        .copy_memory();
}

// A picture decoded shrunk, with the size of the full picture it stands for (after rotation).
struct Decoded
{
    VImage picture;
    qint64 fullWidth;
    qint64 fullHeight;
};

std::optional<Decoded> decodeImage(const QString &path, int boxWidth, int boxHeight)
{
    // The header alone says how large the picture is: huge ones are refused before any pixel is read.
    const VImage header = VImage::new_from_file(native(path).constData(),
                                                VImage::option()->set("access", VIPS_ACCESS_SEQUENTIAL));
    qint64 width = header.width();
    qint64 height = header.height();
    if (width <= 0 || height <= 0)
        return std::nullopt;
    if (width * height > vd_ImageUtils::kMaxSourcePixels) {
        qCWarning(lcHandlers).noquote()
            << QStringLiteral("%1 has %2 megapixels; pictures above %3 are not drawn")
                   .arg(Logging::shownInLog(path))
                   .arg(width * height / 1000000)
                   .arg(vd_ImageUtils::kMaxSourcePixels / 1000000);
        return std::nullopt;
    }
    if (header.get_typeof("orientation") != 0 && header.get_int("orientation") >= 5)
        std::swap(width, height);
    const float scale = fitScale(width, height, boxWidth, boxHeight);
    const int longest = int(std::ceil(float(std::max(width, height)) * scale));

    // Go through the shared cache's standard size when one covers what the box needs.
    if (const std::optional<int> standard = ThumbnailCache::standardSizeFor(longest)) {
        if (std::optional<VImage> cached = ThumbnailCache::read(path, *standard))
            return Decoded{*cached, width, height};
        std::optional<VImage> picture = decodeFitting(path, *standard);
        if (!picture)
            return std::nullopt;
        ThumbnailCache::write(path, *standard, *picture);
        return Decoded{*picture, width, height};
    }
    std::optional<VImage> picture = decodeFitting(path, longest);
    return picture ? std::optional<Decoded>(Decoded{*picture, width, height}) : std::nullopt;
}

// Crops and scales a shrunk picture as if the full one were cropped and scaled, so the result has exactly
// the size the full picture would give.
std::optional<VImage> fitDecoded(const Decoded &decoded, int boxWidth, int boxHeight)
{
    const auto [keptWidth, keptHeight] = croppedSize(decoded.fullWidth, decoded.fullHeight);
    const float scale = fitScale(decoded.fullWidth, decoded.fullHeight, boxWidth, boxHeight);
    const int targetWidth = int(float(keptWidth) * scale);
    const int targetHeight = int(float(keptHeight) * scale);
    if (targetWidth == 0 || targetHeight == 0)
        return std::nullopt;
    const VImage &shrunk = decoded.picture;
    const int cropWidth = int(std::clamp<qint64>(
        std::llround(double(keptWidth) * shrunk.width() / decoded.fullWidth), 1, shrunk.width()));
    const int cropHeight = int(std::clamp<qint64>(
        std::llround(double(keptHeight) * shrunk.height() / decoded.fullHeight), 1, shrunk.height()));
    const VImage cropped = shrunk.extract_area(0, 0, cropWidth, cropHeight);
    if (cropWidth == targetWidth && cropHeight == targetHeight)
        return cropped;
    return cropped.resize(double(targetWidth) / cropWidth,
                          VImage::option()->set("vscale", double(targetHeight) / cropHeight));
}

std::optional<VImage> otherTypeImage(const QString &path, const QString &mimeType, int boxWidth,
                                     int boxHeight)
{
    const int standard = ThumbnailCache::standardSizeFor(std::max(boxWidth, boxHeight)).value_or(1024);
    if (std::optional<VImage> cached = ThumbnailCache::read(path, standard))
        return cached;
    std::optional<VImage> picture = ExternalThumbnailer::thumbnail(path, mimeType, standard);
    if (picture)
        ThumbnailCache::write(path, standard, *picture);
    return picture;
}

// The icon theme's picture for one icon name, as a file path, preferring large bitmaps, then vectors.
QString themeIconFile(const QString &name)
{
    const QStringList dataDirs = QStandardPaths::standardLocations(QStandardPaths::GenericDataLocation);
    for (const QString &dataDir : dataDirs) {
        for (const char *theme : {"Adwaita", "hicolor"}) {
            const QString base = dataDir + QStringLiteral("/icons/") + QLatin1String(theme);
            for (const char *size : {"256x256", "512x512", "128x128", "96x96", "64x64", "48x48"}) {
                for (const char *context : {"mimetypes", "places"}) {
                    const QString file = QStringLiteral("%1/%2/%3/%4.png")
                                             .arg(base, QLatin1String(size), QLatin1String(context), name);
                    if (QFileInfo::exists(file))
                        return file;
                }
            }
        }
    }
    return QString();
}

// The largest top-left rectangle of the image whose sides are at most 4 to 1.
vips::VImage CropImageForMaxAspectRatioCreate(const vips::VImage &image)
{
    const auto [width, height] = croppedSize(image.width(), image.height());
    if (width == image.width() && height == image.height())
        return image;
    return image.extract_area(0, 0, int(width), int(height));
}

// Whether a drawing of width × height pixels may be made.
bool MyCreateBitmapContext(qint64 width, qint64 height)
{
    return width * height <= vd_ImageUtils::kMaxDrawPixels;
}

} // namespace

std::optional<QByteArray> vd_ImageUtils::imageDataForPath(const QString &path, int width, int height,
                                                          bool makeJPEG, double quality)
{
    const std::optional<VImage> picture = createImage(path, width, height);
    if (!picture)
        return std::nullopt;
    return dataForCGImage(*picture, makeJPEG, quality);
}

std::optional<vips::VImage> vd_ImageUtils::createImage(const QString &path, int width, int height)
{
    ensureVips();
    if (path == kComputerPath)
        return createComputerImage(width, height);
    if (const QString iCloud = Places::iCloudPath(); !iCloud.isEmpty() && path == iCloud)
        return createiCloudImage(width, height);

    std::optional<VImage> picture;
    const QFileInfo info(path);
    if (info.isFile()) {
        const QString mimeType = QMimeDatabase().mimeTypeForFile(path).name();
        try {
            if (!decodesInProcess(mimeType)) {
                picture = otherTypeImage(path, mimeType, width, height);
            } else if (const std::optional<Decoded> decoded = decodeImage(path, width, height)) {
                if (std::optional<VImage> fitted = fitDecoded(*decoded, width, height))
                    return fitted->copy_memory();
            }
        } catch (const vips::VError &) {
            qCWarning(lcHandlers).noquote()
                << QStringLiteral("Quicklook threw exception. The file may be corrupt: %1")
                       .arg(Logging::shownInLog(path));
            picture.reset();
        }
    }
    if (!picture)
        picture = workspaceIconForPath(path, std::max(width, height));
    if (!picture)
        return std::nullopt;
    const std::optional<VImage> resized = resizeImageIfNeededCreate(*picture, width, height);
    return resized ? resized : picture;
}

std::optional<vips::VImage> vd_ImageUtils::resizeImageIfNeededCreate(const vips::VImage &image, int width,
                                                                     int height)
{
    try {
        const VImage cropped = CropImageForMaxAspectRatioCreate(image);
        if (width <= 0 || (cropped.width() <= width && cropped.height() <= height))
            return cropped;
        const float scale =
            std::min(float(width) / float(cropped.width()), float(height) / float(cropped.height()));
        const int newWidth = int(float(cropped.width()) * scale);
        const int newHeight = int(float(cropped.height()) * scale);
        if (newWidth == 0 || newHeight == 0)
            return std::nullopt;
        if (!MyCreateBitmapContext(newWidth, newHeight))
            return cropped;
        return cropped.resize(double(newWidth) / cropped.width(),
                              VImage::option()->set("vscale", double(newHeight) / cropped.height()));
    } catch (const vips::VError &) {
        return std::nullopt;
    }
}

std::optional<QByteArray> vd_ImageUtils::dataForCGImage(const vips::VImage &image, bool makeJPEG,
                                                        double quality)
{
    try {
        VImage picture = image;
        if (picture.interpretation() != VIPS_INTERPRETATION_sRGB &&
            picture.interpretation() != VIPS_INTERPRETATION_B_W)
            picture = picture.colourspace(VIPS_INTERPRETATION_sRGB);
        if (picture.format() != VIPS_FORMAT_UCHAR)
            picture = picture.cast(VIPS_FORMAT_UCHAR);
        void *buffer = nullptr;
        size_t length = 0;
        if (makeJPEG) {
            if (picture.has_alpha())
                picture = picture.flatten(
                    VImage::option()->set("background", std::vector<double>{255.0, 255.0, 255.0}));
            const int q = std::clamp(int(std::lround(quality * 100.0)), 1, 100);
            vips_jpegsave_buffer(picture.get_image(), &buffer, &length, "Q", q, "strip", TRUE, nullptr);
        } else {
            vips_pngsave_buffer(picture.get_image(), &buffer, &length, "strip", TRUE, nullptr);
        }
        if (!buffer)
            return std::nullopt;
        QByteArray bytes(static_cast<const char *>(buffer), qsizetype(length));
        g_free(buffer);
        return bytes;
    } catch (const vips::VError &) {
        return std::nullopt;
    }
}

std::optional<vips::VImage> vd_ImageUtils::workspaceIconForPath(const QString &path, int size)
{
    ensureVips();
    QString file = path;
    if (file.isEmpty()) {
        qCWarning(lcHandlers).noquote() << "found bug";
        file = QStringLiteral("/");
    }
    const QMimeType type = QMimeDatabase().mimeTypeForFile(file);
    for (const QString &name : {type.iconName(), type.genericIconName()}) {
        const QString icon = themeIconFile(name);
        if (icon.isEmpty())
            continue;
        try {
            return VImage::thumbnail(native(icon).constData(), size, VImage::option()->set("height", size))
                .copy_memory();
        } catch (const vips::VError &) {
            continue;
        }
    }
    return createNamedImage(ShippedIcons::nameForMimeType(type.name()), size, size);
}

std::optional<vips::VImage> vd_ImageUtils::createComputerImage(int width, int height)
{
    return createNamedImage(QStringLiteral("computer"), width, height);
}

std::optional<vips::VImage> vd_ImageUtils::createiCloudImage(int width, int height)
{
    return createNamedImage(QStringLiteral("icloud"), width, height);
}

std::optional<vips::VImage> vd_ImageUtils::createNamedImage(const QString &name, int width, int height)
{
    ensureVips();
    try {
        const VImage shipped = ShippedIcons::picture(name);
        const double scale = double(std::max(1, std::min(width, height))) / shipped.width();
        return shipped.resize(scale).copy_memory();
    } catch (const vips::VError &) {
        return std::nullopt;
    }
}
