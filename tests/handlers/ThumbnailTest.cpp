#include "common/LogCapture.h"
#include "common/TempHome.h"
#include "common/TestPdf.h"
#include "handlers/ExternalThumbnailer.h"
#include "handlers/ThumbnailCache.h"
#include "handlers/ThumbnailHandler.h"
#include "handlers/vd_ImageUtils.h"
#include "support/Encodings.h"

#include <QDir>
#include <QFile>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {

using vips::VImage;

VImage decoded(const QByteArray &bytes)
{
    return VImage::new_from_buffer(bytes.constData(), size_t(bytes.size()), "").copy_memory();
}

// A colourful test picture: a gradient in three bands, optionally with an alpha band.
QString writePicture(const TempHome &home, const QString &name, int width, int height, bool alpha = false)
{
    const VImage xy = VImage::xyz(width, height) * 255 / std::max(width, height);
    VImage picture = xy.bandjoin(xy.extract_band(0));
    if (alpha)
        picture = picture.bandjoin(VImage::black(width, height) + 128);
    const QString path = home.writeFile(name, {}); // the folders on the way, for libvips to write into
    picture.cast(VIPS_FORMAT_UCHAR)
        .copy(VImage::option()->set("interpretation", VIPS_INTERPRETATION_sRGB))
        .write_to_file(QFile::encodeName(path).constData());
    return path;
}

long peakResidentKilobytes()
{
    struct rusage usage
    {};
    ::getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

} // namespace

TEST(Thumbnail, RequestPathsDimensionsCropBeforeScaleAndTheDrawingLimit)
{
    for (const auto &[path, item, width, height, png] :
         {std::tuple{u"/.1384567890.64.64.png"_s, u"/"_s, 64, 64, true},
          {u".0.64.64.png"_s, vd_ImageUtils::kComputerPath, 64, 64, true},
          {u"/a/.hidden.1.64.64.jpg"_s, u"/a/.hidden"_s, 64, 64, false}}) {
        const auto thumb = ThumbnailHandler::parseThumbPath(path);
        EXPECT_EQ(std::tuple(thumb.itemPath, thumb.width, thumb.height, thumb.png),
                  std::tuple(item, width, height, png));
    }
    for (const auto &[text, dimension] :
         {std::pair{"3", 3}, {"2", 128}, {"4096", 4096}, {"4097", 128}, {"wide", 128}})
        EXPECT_EQ(ThumbnailHandler::getDimension(QLatin1String(text)), dimension) << text;

    const auto size = [](int width, int height, int box) {
        const auto image = vd_ImageUtils::resizeImageIfNeededCreate(VImage::black(width, height), box, box);
        return image ? std::make_pair(image->width(), image->height()) : std::make_pair(0, 0);
    };
    // Cut to 4:1 first, then scaled into the box; a small picture stays as it is.
    EXPECT_EQ(size(1000, 100, 128), std::make_pair(128, 32));
    EXPECT_EQ(size(100, 1000, 128), std::make_pair(32, 128));
    EXPECT_EQ(size(1000, 100, 4000), std::make_pair(400, 100));
    EXPECT_EQ(size(50, 40, 128), std::make_pair(50, 40));
    // Scaled, this one would still be 36 megapixels: it comes back unscaled; 25 are allowed.
    EXPECT_EQ(size(10000, 10000, 6000).first, 10000);
    EXPECT_EQ(size(10000, 10000, 5000).first, 5000);
}

TEST(Thumbnail, IconsStandInForUnknownCorruptHugeAndOversizedPictures)
{
    TempHome home;
    LogCapture log;
    const auto pdf =
        vd_ImageUtils::createImage(home.writeFile(u"Documents/page.pdf"_s, makePdf("page")), 256, 256);
    ASSERT_TRUE(pdf);
    EXPECT_EQ(pdf->height(), 256); // the letter-size page itself, not a square icon
    EXPECT_NEAR(pdf->width(), 198, 2);

    // The machine's thumbnailer for videos copies the picture named inside the video file, padding it to
    // the size named after it.
    const QString script =
        home.writeFile(u"bin/thumbnail-video"_s, "#!/bin/sh\nset -- \"$1\" \"$2\" $(cat \"$1\")\n"
                                                 "cp \"$3\" \"$2\" && truncate -s \"${4:-+0}\" \"$2\"\n");
    QFile::setPermissions(script, QFile::ReadOwner | QFile::ExeOwner);
    home.writeFile(u".local/share/thumbnailers/video.thumbnailer"_s,
                   "[Thumbnailer Entry]\nTryExec=" + script.toUtf8() + "\nExec=" + script.toUtf8() +
                       " %i %o\nMimeType=video/x-matroska;\n");
    const auto video = [&](const char *name, const QString &content) {
        return home.writeFile(QString::fromLatin1(name), content.toUtf8());
    };
    const QString small = writePicture(home, u"small.png"_s, 120, 90);
    const auto plain = ExternalThumbnailer::thumbnail(video("plain.mkv", small), u"video/x-matroska"_s, 128);
    ASSERT_TRUE(plain);
    EXPECT_EQ(plain->width(), 120);

    // A thumbnailer's picture past 16 MiB is not read, however valid its start. Just over 100 million pixels
    // of three bands in a small file are refused from the header, directly or as a thumbnailer's output, and
    // memory stays low.
    const QString bomb = home.filePath(u"bomb.png"_s);
    VImage::black(10000, 10001, VImage::option()->set("bands", 3))
        .pngsave(QFile::encodeName(bomb).constData());
    const QString broken =
        home.writeFile(u"broken.jpg"_s, QByteArray("\xff\xd8\xff\xe0", 4) + QByteArray(2000, '\x55'));
    const long before = peakResidentKilobytes();
    const QString padded = video("padded.mkv", small + u" 17M"_s);
    EXPECT_FALSE(ExternalThumbnailer::thumbnail(padded, u"video/x-matroska"_s, 128));
    EXPECT_FALSE(ExternalThumbnailer::thumbnail(video("bomb.mkv", bomb), u"video/x-matroska"_s, 128));
    // Wherever there is nothing to draw, the icon stands in.
    for (const QString &path : {home.writeFile(u"data.xyz123"_s, "\x01\x02"), broken, padded, bomb}) {
        const auto icon = vd_ImageUtils::createImage(path, 64, 64);
        ASSERT_TRUE(icon) << path.toStdString();
        EXPECT_EQ(icon->width(), 64) << path.toStdString();
    }
    EXPECT_LT(peakResidentKilobytes() - before, 100 * 1024);
    const QString logged = log.lines.join(u'\n');
    EXPECT_TRUE(logged.contains(u"The file may be corrupt: "_s + broken));
    EXPECT_TRUE(logged.contains(u"bomb.png has 100 megapixels"_s));
    EXPECT_TRUE(logged.contains(u"no thumbnail for "_s + home.filePath(u"bomb.mkv"_s)));
}

TEST(Thumbnail, RequestsFillThumbAndPreviewThroughTheSharedCache)
{
    TempHome home;
    QByteArray raw;
    const auto ask = [&](void (*handler)(QJsonObject &, QByteArray *), const QString &path) {
        QJsonObject request{{u"path"_s, path}};
        handler(request, &raw);
        return request;
    };
    const QString jpeg = writePicture(home, u"Pictures/p.jpg"_s, 900, 600);
    const QJsonObject thumb = ask(ThumbnailHandler::handleThumbRequest, jpeg + u".1384567890.128.64.jpg"_s);
    EXPECT_EQ(dataWithBase64EncodedString_URL_SAFE(thumb.value(u"thumb"_s).toString()), raw);
    EXPECT_EQ(std::pair(decoded(raw).width(), decoded(raw).height()), std::pair(96, 64));
    // The desktop's cache got the standard 128-pixel picture, tagged so that file managers trust it.
    ASSERT_EQ(QDir(ThumbnailCache::folderFor(128)).entryList(QDir::Files).size(), 1);
    EXPECT_TRUE(ThumbnailCache::read(jpeg, 128).has_value());
    ask(ThumbnailHandler::handleThumbRequest, u".0.128.128.png"_s);
    EXPECT_TRUE(raw.startsWith("\x89PNG"));
    ask(ThumbnailHandler::handlePreviewRequest, jpeg + u".jpg"_s);
    EXPECT_EQ(std::pair(decoded(raw).width(), decoded(raw).height()), std::pair(768, 512));
    // Only the last component carries the format suffix: a dot in a folder name cuts nothing.
    const QString named = writePicture(home, u"a.b/picture.jpg"_s, 900, 600);
    QFile::rename(named, named.chopped(4));
    ask(ThumbnailHandler::handlePreviewRequest, named.chopped(4));
    EXPECT_EQ(decoded(raw).height(), 512);
    home.writeFile(u"Pictures/p.jpg"_s, "changed"); // a new mtime or content invalidates
    const struct timespec later[2] = {{0, UTIME_OMIT}, {2000000000, 0}};
    ::utimensat(AT_FDCWD, QFile::encodeName(jpeg).constData(), later, 0);
    EXPECT_FALSE(ThumbnailCache::read(jpeg, 128).has_value());

    // A PNG with transparency asked as PNG keeps its alpha; the JPEG qualities differ as they should.
    const QString png = writePicture(home, u"Pictures/logo.png"_s, 300, 200, true);
    ask(ThumbnailHandler::handleThumbRequest, png + u".1.64.64.png"_s);
    EXPECT_EQ(decoded(raw).bands(), 4);
    const auto low = vd_ImageUtils::imageDataForPath(png, 256, 256, true, 0.54);
    const auto high = vd_ImageUtils::imageDataForPath(png, 256, 256, true, 0.64);
    ASSERT_TRUE(low && high);
    EXPECT_LT(low->size(), high->size());
    EXPECT_EQ(decoded(*low).bands(), 3);

    // The iCloud documents folder has its own picture.
    QDir().mkpath(home.filePath(u"Library/Mobile Documents"_s));
    ask(ThumbnailHandler::handleThumbRequest, home.filePath(u"Library/Mobile Documents.1.64.64.png"_s));
    const double cloudPicture = decoded(raw).avg();
    QDir().mkpath(home.filePath(u"Plain"_s));
    ask(ThumbnailHandler::handleThumbRequest, home.filePath(u"Plain.1.64.64.png"_s));
    EXPECT_NE(decoded(raw).avg(), cloudPicture);
}
