#pragma once

#include <QString>

#include <optional>
#include <vips/vips8>

// Pictures of files that are not decoded in the agent's own process: PDF and SVG through `vipsthumbnail`,
// and every type the machine has a freedesktop thumbnailer for (video, office documents…). Each runs in a
// child process with a time limit and a memory limit; one that crashes or runs out of time is killed, and the
// file is not tried again until it changes.
namespace ExternalThumbnailer {

// Larger pictures are refused from their header, before decoding: the agent's own limit for any picture.
constexpr qint64 kMaxSourcePixels = 100'000'000;

// A picture of the file fitting size × size pixels, or none.
std::optional<vips::VImage> thumbnail(const QString &path, const QString &mimeType, int size);

} // namespace ExternalThumbnailer
