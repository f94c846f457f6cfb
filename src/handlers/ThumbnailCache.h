#pragma once

#include <QString>

#include <optional>
#include <vips/vips8>

// The desktop's shared thumbnail cache ($XDG_CACHE_HOME/thumbnails), read and written the way file managers
// do, so that each side profits from the other's work. A cached picture counts only while it names the
// file's URI and modification time.
namespace ThumbnailCache {

// The standard sizes: normal 128, large 256, x-large 512, xx-large 1024 pixels (the longer side).
constexpr int kStandardSizes[] = {128, 256, 512, 1024};

// The smallest standard size of at least `pixels`, or none when even the largest is smaller.
std::optional<int> standardSizeFor(int pixels);

// The valid cached picture of the file at that standard size, or none.
std::optional<vips::VImage> read(const QString &path, int standardSize);

// Stores a picture of the file at a standard size, atomically and private to the user. Files inside the
// cache itself are never thumbnailed. Failures are silent: the cache is only a shortcut.
void write(const QString &path, int standardSize, const vips::VImage &picture);

// The cache folder of a standard size ("…/thumbnails/large" for 256).
QString folderFor(int standardSize);

} // namespace ThumbnailCache
