#include "metadata/ContentTypes.h"

#include "common/TempHome.h"
#include "metadata/Extractors.h"

#include <QDataStream>
#include <QElapsedTimer>

#include <gtest/gtest.h>

namespace {

QStringList treeOf(const char *name, bool folder = false)
{
    ContentTypes &types = ContentTypes::instance();
    return types.tree(types.codeForFileName(name, folder));
}

// A zip whose one member, the text of a word-processing document, is deflated `content`; its headers claim
// `claimed` bytes unpacked, or the true size.
QByteArray officeZip(const QByteArray &content, std::optional<quint32> claimed = {})
{
    const quint32 claimedSize = claimed.value_or(quint32(content.size()));
    const QByteArray name = "word/document.xml";
    const QByteArray deflated = qCompress(content).mid(6).chopped(4); // the raw stream inside zlib's frame
    QByteArray zip;
    QDataStream out(&zip, QIODevice::WriteOnly);
    out.setByteOrder(QDataStream::LittleEndian);
    out << quint32(0x04034b50) << quint16(20) << quint16(0) << quint16(8) << quint32(0) << quint32(0)
        << quint32(deflated.size()) << claimedSize << quint16(name.size()) << quint16(0);
    out.writeRawData(name.constData(), int(name.size()));
    out.writeRawData(deflated.constData(), int(deflated.size()));
    const quint32 directory = quint32(zip.size());
    out << quint32(0x02014b50) << quint16(20) << quint16(20) << quint16(0) << quint16(8) << quint32(0)
        << quint32(0) << quint32(deflated.size()) << claimedSize << quint16(name.size()) << quint16(0)
        << quint16(0) << quint16(0) << quint16(0) << quint32(0) << quint32(0);
    out.writeRawData(name.constData(), int(name.size()));
    out << quint32(0x06054b50) << quint16(0) << quint16(0) << quint16(1) << quint16(1)
        << quint32(zip.size() - directory) << directory << quint16(0);
    return zip;
}

} // namespace

TEST(ContentTypes, MapsMimeTypesOntoTheUniformTypeTree)
{
    EXPECT_EQ(treeOf("Holiday", true), (QStringList{"public.folder", "public.directory", "public.item"}));
    // Each name's tree starts with the first type and holds the second.
    const std::pair<const char *, std::pair<const char *, const char *>> files[] = {
        {"backup.tar.gz", {"", "public.archive"}},
        {"clip.mp4", {"", "public.movie"}},
        {"message.emlx", {"com.apple.mail.emlx", "public.email-message"}},
        {"blob.qqqzzz", {"dyn.", "public.data"}}};
    for (const auto &[name, types] : files) {
        const QStringList tree = treeOf(name);
        EXPECT_TRUE(tree.front().startsWith(QLatin1String(types.first))) << name;
        EXPECT_TRUE(tree.contains(QLatin1String(types.second))) << name;
    }
    EXPECT_FALSE(treeOf("song.mp3").contains(u"public.movie"));
    EXPECT_FALSE(treeOf("blob.qqqzzz").contains(u"public.content"));
}

TEST(Extractors, ReadsOfficeMailAndTextAndSkipsBinaries)
{
    const TempHome home;
    ContentTypes &types = ContentTypes::instance();
    auto extract = [&](const QString &path) {
        return Extractors::extract(path,
                                   types.codeForFileName(QFileInfo(path).fileName().toStdString(), false),
                                   4 * 1024 * 1024, 5000);
    };

    const Extraction office = extract(
        home.writeFile("letter.docx", officeZip("<w:document><w:p><w:t>Dear Zoë,</w:t></w:p><w:p><w:t>"
                                                "the &amp; quarterly figures</w:t></w:p></w:document>")));
    EXPECT_FALSE(office.failed);
    EXPECT_TRUE(office.text.contains(QStringLiteral("Dear Zoë,")));
    EXPECT_TRUE(office.text.contains(QStringLiteral("the & quarterly figures")));
    EXPECT_TRUE(extract(home.writeFile("broken.docx", "PK\x03\x04 not a zip at all")).text.isEmpty());

    const Extraction mail =
        extract(home.writeFile("note.eml", "Subject: =?iso-8859-1?Q?R=E9union_demain?=\r\n"
                                           "From: Ann\r\n\r\nBody words here\r\n"));
    ASSERT_FALSE(mail.attributes.empty());
    EXPECT_EQ(mail.attributes.front().second, QStringLiteral("Réunion demain"));
    EXPECT_TRUE(mail.text.contains(QStringLiteral("Body words")));
    // A subject of a million encoded words decodes in one pass (piece by piece it took minutes).
    const QString huge = home.writeFile(
        "huge.eml", "Subject: " + QByteArray("=?utf-8?Q?=C3=A9?= ").repeated(1'000'000) + "\r\n\r\nbody\r\n");
    const Extraction longSubject =
        Extractors::extract(huge, types.codeForFileName("huge.eml", false), 64 * 1024 * 1024, 5000);
    ASSERT_FALSE(longSubject.attributes.empty());
    EXPECT_EQ(longSubject.attributes.front().second.count(QStringLiteral("\u00e9")), 1'000'000);

    EXPECT_EQ(extract(home.writeFile("latin.txt", "na\xefve")).text, QStringLiteral("naïve"));
    EXPECT_TRUE(extract(home.writeFile("binary.txt", QByteArray("abc\0def", 7))).text.isEmpty());
    EXPECT_TRUE(extract(home.writeFile("fake.pdf", "%PDF-1.4 garbage")).failed);
    EXPECT_TRUE(extract(home.filePath(QStringLiteral("missing.txt"))).failed);
}

TEST(Extractors, ChildrenAreKilledAtTheirTimeMemoryAndOutputLimits)
{
    const TempHome home;
    const auto office = ContentTypes::instance().codeForFileName("report.docx", false);
    const qint64 textCap = qint64(2) << 30; // far above the children's own limits

    // Words come out; the same words under a header claiming 1.5 GiB need a buffer past the child's
    // address space.
    const QByteArray words = "<w:t>quarterly words</w:t>";
    EXPECT_EQ(Extractors::extract(home.writeFile("plain.docx", officeZip(words)), office, textCap, 60000)
                  .text.trimmed(),
              QStringLiteral("quarterly words"));
    if (Extractors::childAddressSpaceIsLimited()) {
        const Extraction liar = Extractors::extract(home.writeFile("liar.docx", officeZip(words, 0x60000000)),
                                                    office, textCap, 60000);
        EXPECT_TRUE(liar.failed);
        EXPECT_TRUE(liar.text.isEmpty());
    }

    // 34 million characters are 68 MB on the way back: the child is killed, nothing is kept.
    const Extraction flood = Extractors::extract(
        home.writeFile("wordy.docx", officeZip(QByteArray(34'000'000, 'a'))), office, textCap, 60000);
    EXPECT_TRUE(flood.failed);
    EXPECT_TRUE(flood.text.isEmpty());

    const QString slow = home.writeFile("slow.pdf", "%PDF-1.4\n" + QByteArray(2 * 1024 * 1024, ' '));
    QElapsedTimer timer;
    timer.start();
    const Extraction stalled = Extractors::extract(
        slow, ContentTypes::instance().codeForFileName("slow.pdf", false), 1024, 0); // no time at all
    EXPECT_TRUE(stalled.failed);
    EXPECT_LT(timer.elapsed(), 5000);
}
