#include "metadata/ContentTypes.h"

#include "metadata/Extractors.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>
#include <zlib.h>

namespace {

QStringList treeOf(const char *name, bool folder = false)
{
    ContentTypes &types = ContentTypes::instance();
    return types.tree(types.codeForFileName(name, folder));
}

// A zip with one deflated member, enough for the office reader.
QByteArray zipWith(const QByteArray &name, const QByteArray &content)
{
    QByteArray deflated(compressBound(uLong(content.size())) + 16, Qt::Uninitialized);
    z_stream stream{};
    deflateInit2(&stream, Z_DEFAULT_COMPRESSION, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY);
    stream.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(content.constData()));
    stream.avail_in = uInt(content.size());
    stream.next_out = reinterpret_cast<Bytef *>(deflated.data());
    stream.avail_out = uInt(deflated.size());
    deflate(&stream, Z_FINISH);
    deflated.truncate(qsizetype(stream.total_out));
    deflateEnd(&stream);
    auto le = [](quint32 value, int bytes) {
        QByteArray out;
        for (int i = 0; i < bytes; ++i)
            out.append(char((value >> (8 * i)) & 0xff));
        return out;
    };
    const quint32 crc =
        quint32(crc32(0, reinterpret_cast<const Bytef *>(content.constData()), uInt(content.size())));
    const QByteArray sizes = le(crc, 4) + le(quint32(deflated.size()), 4) + le(quint32(content.size()), 4);
    QByteArray zip = le(0x04034b50, 4) + le(20, 2) + le(0, 2) + le(8, 2) + le(0, 4) + sizes +
                     le(quint32(name.size()), 2) + le(0, 2) + name + deflated;
    const auto central = quint32(zip.size());
    zip += le(0x02014b50, 4) + le(20, 2) + le(20, 2) + le(0, 2) + le(8, 2) + le(0, 4) + sizes +
           le(quint32(name.size()), 2) + le(0, 2) + le(0, 2) + le(0, 2) + le(0, 2) + le(0, 4) + le(0, 4) +
           name;
    const auto centralSize = quint32(zip.size()) - central;
    zip += le(0x06054b50, 4) + le(0, 2) + le(0, 2) + le(1, 2) + le(1, 2) + le(centralSize, 4) +
           le(central, 4) + le(0, 2);
    return zip;
}

} // namespace

TEST(ContentTypes, MapsMimeTypesOntoTheUniformTypeTree)
{
    EXPECT_EQ(treeOf("Holiday", true), (QStringList{"public.folder", "public.directory", "public.item"}));
    EXPECT_TRUE(treeOf("a.JPG").contains(u"public.image"));
    EXPECT_EQ(treeOf("a.jpg").front(), QStringLiteral("public.jpeg"));
    EXPECT_TRUE(treeOf("clip.mp4").contains(u"public.movie"));
    EXPECT_TRUE(treeOf("song.mp3").contains(u"public.audio"));
    EXPECT_FALSE(treeOf("song.mp3").contains(u"public.movie"));
    const QStringList source = treeOf("main.c");
    EXPECT_TRUE(source.contains(u"public.source-code") && source.contains(u"public.plain-text") &&
                source.contains(u"public.text") && source.contains(u"public.data"));
    EXPECT_EQ(treeOf("doc.pdf").front(), QStringLiteral("com.adobe.pdf"));
    EXPECT_TRUE(treeOf("backup.tar.gz").contains(u"public.archive"));
    EXPECT_TRUE(treeOf("a.zip").contains(u"public.archive"));
    EXPECT_TRUE(treeOf("sheet.xlsx").contains(u"public.spreadsheet"));
    EXPECT_TRUE(treeOf("deck.pptx").contains(u"public.presentation"));
    EXPECT_TRUE(treeOf("deck.odp").contains(u"public.presentation"));
    EXPECT_TRUE(treeOf("message.eml").contains(u"public.email-message"));
    EXPECT_EQ(treeOf("message.emlx").front(), QStringLiteral("com.apple.mail.emlx"));
    EXPECT_TRUE(treeOf("message.emlx").contains(u"public.email-message"));
    const QStringList unknown = treeOf("blob.qqqzzz");
    EXPECT_TRUE(unknown.front().startsWith(u"dyn."));
    EXPECT_TRUE(unknown.contains(u"public.data"));
    EXPECT_FALSE(unknown.contains(u"public.content"));
    EXPECT_FALSE(treeOf("x", true).contains(u"public.data"));
}

TEST(Extractors, ReadsOfficeMailAndTextAndSkipsBinaries)
{
    QTemporaryDir dir;
    auto write = [&](const char *name, const QByteArray &bytes) {
        QFile file(dir.filePath(QLatin1String(name)));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(bytes);
        return file.fileName();
    };
    ContentTypes &types = ContentTypes::instance();
    auto extract = [&](const QString &path) {
        return Extractors::extract(path,
                                   types.codeForFileName(QFileInfo(path).fileName().toStdString(), false),
                                   4 * 1024 * 1024, 5000);
    };

    const QString docx = write(
        "letter.docx", zipWith("word/document.xml", "<w:document><w:p><w:t>Dear Zoë,</w:t></w:p><w:p><w:t>"
                                                    "the &amp; quarterly figures</w:t></w:p></w:document>"));
    const Extraction office = extract(docx);
    EXPECT_FALSE(office.failed);
    EXPECT_TRUE(office.text.contains(QStringLiteral("Dear Zoë,")));
    EXPECT_TRUE(office.text.contains(QStringLiteral("the & quarterly figures")));
    EXPECT_TRUE(extract(write("broken.docx", "PK\x03\x04 not a zip at all")).text.isEmpty());

    const Extraction mail = extract(write("note.eml", "Subject: =?iso-8859-1?Q?R=E9union_demain?=\r\n"
                                                      "From: Ann\r\n\r\nBody words here\r\n"));
    ASSERT_FALSE(mail.attributes.empty());
    EXPECT_EQ(mail.attributes.front().second, QStringLiteral("Réunion demain"));
    EXPECT_TRUE(mail.text.contains(QStringLiteral("Body words")));
    // A subject of a million encoded words decodes in one pass (piece by piece it took minutes).
    const QString huge = write(
        "huge.eml", "Subject: " + QByteArray("=?utf-8?Q?=C3=A9?= ").repeated(1'000'000) + "\r\n\r\nbody\r\n");
    const Extraction longSubject =
        Extractors::extract(huge, types.codeForFileName("huge.eml", false), 64 * 1024 * 1024, 5000);
    ASSERT_FALSE(longSubject.attributes.empty());
    EXPECT_EQ(longSubject.attributes.front().second.count(QStringLiteral("\u00e9")), 1'000'000);

    EXPECT_EQ(extract(write("latin.txt", "na\xefve")).text, QStringLiteral("naïve"));
    EXPECT_TRUE(extract(write("binary.txt", QByteArray("abc\0def", 7))).text.isEmpty());
    EXPECT_TRUE(extract(write("fake.pdf", "%PDF-1.4 garbage")).failed);
    EXPECT_TRUE(extract(dir.filePath(QStringLiteral("missing.txt"))).failed);
}
