#pragma once

#include "handlers/ExternalThumbnailer.h"

#include <QByteArray>
#include <QString>

#include <optional>
#include <vips/vips8>

// Pictures of files for thumbnails and previews: the file's content where the computer can render it, else
// its desktop icon, cropped to at most 4 to 1 and scaled down into a box, encoded as JPEG or PNG.
class vd_ImageUtils
{
public:
    // The pseudo-path of the computer item, whose picture is the computer icon.
    static inline const QString kComputerPath = QStringLiteral("xxxx_COMPUTER_xxxx");
    // Pixel limits: larger images are refused before decoding, larger drawings are not made.
    static constexpr qint64 kMaxSourcePixels = ExternalThumbnailer::kMaxSourcePixels;
    static constexpr qint64 kMaxDrawPixels = 25'000'000;

    // The encoded picture of the path in a width × height box, or none when not even an icon can be had.
    static std::optional<QByteArray> imageDataForPath(const QString &path, int width, int height,
                                                      bool makeJPEG, double quality);
    // The picture itself, cropped and scaled into the box (the computer icon comes as it is).
    static std::optional<vips::VImage> createImage(const QString &path, int width, int height);
    // Crops to 4:1 at most, then scales down to fit the box when larger. Above kMaxDrawPixels after scaling
    // the cropped image is returned unscaled.
    static std::optional<vips::VImage> resizeImageIfNeededCreate(const vips::VImage &image, int width,
                                                                 int height);

private:
    // JPEG at the quality (0 to 1) over white where the picture is transparent, or PNG keeping its alpha.
    static std::optional<QByteArray> dataForCGImage(const vips::VImage &image, bool makeJPEG, double quality);
    // The desktop's icon of the file at the size: the icon theme's, else a shipped one. Never none for a
    // sane size.
    static std::optional<vips::VImage> workspaceIconForPath(const QString &path, int size);
    static std::optional<vips::VImage> createComputerImage(int width, int height);
    static std::optional<vips::VImage> createiCloudImage(int width, int height);
    static std::optional<vips::VImage> createNamedImage(const QString &name, int width, int height);
};
