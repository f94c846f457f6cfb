#include "handlers/ThumbnailCache.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QStandardPaths>
#include <QUrl>

#include <sys/stat.h>

namespace ThumbnailCache {

namespace {

QByteArray uriOf(const QString &path)
{
    return QUrl::fromLocalFile(path).toEncoded();
}

std::optional<qint64> modificationTime(const QString &path)
{
    struct stat info;
    if (::stat(QFile::encodeName(path).constData(), &info) != 0)
        return std::nullopt;
    return qint64(info.st_mtim.tv_sec);
}

QString cacheRoot()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericCacheLocation) +
           QStringLiteral("/thumbnails");
}

QString entryFor(const QString &path, int standardSize)
{
    return folderFor(standardSize) + u'/' +
           QString::fromLatin1(QCryptographicHash::hash(uriOf(path), QCryptographicHash::Md5).toHex()) +
           QStringLiteral(".png");
}

// The value of a PNG text chunk as libvips exposes it ("png-comment-<n>-<key>").
std::optional<QByteArray> textChunk(const vips::VImage &image, const char *key)
{
    char **fields = vips_image_get_fields(image.get_image());
    std::optional<QByteArray> value;
    for (char **field = fields; *field; ++field) {
        const QByteArray name(*field);
        if (!value && name.startsWith("png-comment-") && name.endsWith(QByteArray("-") + key)) {
            const char *text = nullptr;
            if (vips_image_get_string(image.get_image(), *field, &text) == 0)
                value = QByteArray(text);
        }
    }
    g_strfreev(fields);
    return value;
}

} // namespace

std::optional<int> standardSizeFor(int pixels)
{
    for (const int size : kStandardSizes) {
        if (size >= pixels)
            return size;
    }
    return std::nullopt;
}

QString folderFor(int standardSize)
{
    const char *name = standardSize <= 128   ? "normal"
                       : standardSize <= 256 ? "large"
                       : standardSize <= 512 ? "x-large"
                                             : "xx-large";
    return cacheRoot() + u'/' + QLatin1String(name);
}

std::optional<vips::VImage> read(const QString &path, int standardSize)
{
    const QString entry = entryFor(path, standardSize);
    const std::optional<qint64> mtime = modificationTime(path);
    if (!mtime || !QFile::exists(entry))
        return std::nullopt;
    try {
        vips::VImage picture = vips::VImage::new_from_file(QFile::encodeName(entry).constData(),
                                                           vips::VImage::option()->set("fail", true));
        if (textChunk(picture, "Thumb::URI") != uriOf(path) ||
            textChunk(picture, "Thumb::MTime") != QByteArray::number(*mtime))
            return std::nullopt;
        // Decode now, so a damaged entry fails here and not later in the caller.
        return picture.copy_memory();
    } catch (const vips::VError &) {
        return std::nullopt;
    }
}

void write(const QString &path, int standardSize, const vips::VImage &picture)
{
    const QString root = cacheRoot();
    if (path.startsWith(root + u'/'))
        return;
    const std::optional<qint64> mtime = modificationTime(path);
    if (!mtime)
        return;
    const QString folder = folderFor(standardSize);
    if (!QDir().mkpath(folder))
        return;
    ::chmod(QFile::encodeName(root).constData(), 0700);
    ::chmod(QFile::encodeName(folder).constData(), 0700);
    const QString entry = entryFor(path, standardSize);
    const QString temporary = entry + QStringLiteral(".vandrel-%1.png").arg(qintptr(&picture));
    try {
        vips::VImage tagged = picture.copy();
        tagged.set("png-comment-0-Thumb::URI", uriOf(path).constData());
        tagged.set("png-comment-1-Thumb::MTime", QByteArray::number(*mtime).constData());
        tagged.set("png-comment-2-Software", "Vandrel");
        tagged.pngsave(QFile::encodeName(temporary).constData());
        ::chmod(QFile::encodeName(temporary).constData(), 0600);
        if (::rename(QFile::encodeName(temporary).constData(), QFile::encodeName(entry).constData()) != 0)
            QFile::remove(temporary);
    } catch (const vips::VError &) {
        QFile::remove(temporary);
    }
}

} // namespace ThumbnailCache
