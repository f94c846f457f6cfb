#include "common/TempHome.h"
#include "links/qlk_Schema.h"
#include "support/vd_Checksum.h"

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

const QString kService = QStringLiteral("https://links.example.test/l");

// The link as a person receives it (text), turned into the URL the link scheme delivers, read back.
std::optional<LinkDescription> readBack(const QUrl &link)
{
    const std::optional<QUrl> schemeUrl =
        qlk_Schema::schemeUrlForServiceLink(QUrl(link.toString(QUrl::FullyEncoded)), kService);
    if (!schemeUrl)
        return std::nullopt;
    return qlk_Schema::parseQlkUrl(QUrl(schemeUrl->toString(QUrl::FullyEncoded)));
}

QStringList segments(const QUrl &link)
{
    return link.toString(QUrl::FullyEncoded).mid(kService.size() + 1).split(u'/');
}

int score(const QString &path, const LinkDescription &description)
{
    return qlk_Schema::fileInfoDict(path, description).score;
}

QStringList homeParts(const TempHome &home)
{
    return qlk_Schema::pathComponents(home.path());
}

} // namespace

TEST(LinkRoundTrip, OddNamesComeBackAsTheyWere)
{
    TempHome home;
    const QString longName = QString(240, u'x') + QStringLiteral(".txt");
    const QStringList names = {
        QStringLiteral("say \"hi\" 'now'.txt"), QStringLiteral("Café Résumé.txt"),
        QStringLiteral("🙂 party 🎉.txt"),  QStringLiteral("100% #1 ?a=b&c+d;e.txt"),
        QStringLiteral("back\\slash %41 .txt"), longName};
    for (const QString &name : names) {
        const QString ancestors = QStringLiteral("Ünï code/a b/\"q\"");
        const QString path = home.writeFile(ancestors + u'/' + name, name.toUtf8());
        const std::optional<QUrl> link = qlk_Schema::qlkURLFor(path, kService + u'/');
        ASSERT_TRUE(link) << name.toStdString();
        EXPECT_TRUE(link->toString(QUrl::FullyEncoded).startsWith(kService + QStringLiteral("/p/")));
        const std::optional<LinkDescription> description = readBack(*link);
        ASSERT_TRUE(description) << name.toStdString();
        EXPECT_FALSE(description->dir);
        EXPECT_EQ(description->fileName, name);
        EXPECT_EQ(description->parent, QStringLiteral("\"q\""));
        EXPECT_EQ(description->grandParent, QStringLiteral("a b"));
        EXPECT_EQ(description->greatGrandParent, QStringLiteral("Ünï code"));
        EXPECT_EQ(description->size, name.toUtf8().size());
        EXPECT_EQ(description->crc32, vd_Checksum::crc32(path));
        EXPECT_EQ(description->crc32.size(), 8);
    }

    // Encoding: spaces and non-ASCII letters as upper-case hex of their UTF-8 bytes; the URL-path
    // characters stay as they are.
    const QString spaced = home.writeFile(QStringLiteral("Docs/é x!$&'()*+,:=@~.txt"), "123456789");
    const QStringList parts = segments(*qlk_Schema::qlkURLFor(spaced, kService));
    EXPECT_EQ(parts.last(), QStringLiteral("%C3%A9%20x!$&'()*+,:=@~.txt"));
    EXPECT_EQ(parts.mid(0, 3),
              (QStringList{QStringLiteral("p"), QStringLiteral("9"), QStringLiteral("cbf43926")}));
    EXPECT_EQ(parts.mid(4, 2), (QStringList{homeParts(home).last(), QStringLiteral("Docs")}));
}

TEST(LinkRoundTrip, FoldersCountDirectEntriesAndItemsNearTheRootKeepTheRootSegment)
{
    TempHome home;
    home.writeFile(QStringLiteral("Box/one"), "1");
    home.writeFile(QStringLiteral("Box/two"), "2");
    home.writeFile(QStringLiteral("Box/.hidden"), "3");
    home.writeFile(QStringLiteral("Box/inner/deeper"), "4");
    QDir(home.path()).mkpath(QStringLiteral("Empty"));

    const std::optional<QUrl> box = qlk_Schema::qlkURLFor(home.filePath(QStringLiteral("Box")), kService);
    ASSERT_TRUE(box);
    EXPECT_EQ(segments(*box).mid(0, 3),
              (QStringList{QStringLiteral("f"), QStringLiteral("4"), QStringLiteral("FOLDER")}));
    const std::optional<LinkDescription> description = readBack(*box);
    ASSERT_TRUE(description);
    EXPECT_TRUE(description->dir);
    EXPECT_EQ(description->numFiles, 4);
    EXPECT_EQ(description->fileName, QStringLiteral("Box"));
    EXPECT_EQ(segments(*qlk_Schema::qlkURLFor(home.filePath(QStringLiteral("Empty")), kService)).value(1),
              QStringLiteral("0"));

    // /tmp has two components, the root and "tmp": the root stands as the parent, a lone slash.
    const std::optional<QUrl> tmp = qlk_Schema::qlkURLFor(QStringLiteral("/tmp"), kService);
    ASSERT_TRUE(tmp);
    EXPECT_TRUE(tmp->toString(QUrl::FullyEncoded).endsWith(QStringLiteral("/FOLDER///tmp")));

    // No item, no base address, an address that is not a URL: no link.
    EXPECT_FALSE(qlk_Schema::qlkURLFor(home.filePath(QStringLiteral("gone.txt")), kService));
    EXPECT_FALSE(qlk_Schema::qlkURLFor(home.filePath(QStringLiteral("Box/one")), QString()));
    EXPECT_FALSE(
        qlk_Schema::qlkURLFor(home.filePath(QStringLiteral("Box/one")), QStringLiteral("ht tp://x y")));
    // A symbolic link is judged by its target; a dangling one is no item.
    QFile::link(home.filePath(QStringLiteral("nowhere")), home.filePath(QStringLiteral("dangling")));
    EXPECT_FALSE(qlk_Schema::qlkURLFor(home.filePath(QStringLiteral("dangling")), kService));
    // A file whose content cannot be read (a pipe is refused, not waited on) still gets a link, with an
    // empty checksum segment.
    const QString pipe = home.filePath(QStringLiteral("pipe"));
    ASSERT_EQ(::mkfifo(QFile::encodeName(pipe).constData(), 0600), 0);
    const std::optional<QUrl> pipeLink = qlk_Schema::qlkURLFor(pipe, kService);
    ASSERT_TRUE(pipeLink);
    EXPECT_EQ(segments(*pipeLink).mid(0, 3),
              (QStringList{QStringLiteral("p"), QStringLiteral("0"), QString()}));
    EXPECT_EQ(segments(*pipeLink).last(), QStringLiteral("pipe"));
}

TEST(LinkRoundTrip, MalformedLinksGiveNothingOrZeroesNeverACrash)
{
    const auto parse = [](const char *text) {
        return qlk_Schema::parseQlkUrl(QUrl(QString::fromUtf8(text)));
    };
    EXPECT_FALSE(parse("qlk://p/1/2/3")); // four components with the root: too short
    EXPECT_FALSE(parse("qlk:"));
    const std::optional<LinkDescription> five = parse("qlk://p/12/abc/x/name");
    ASSERT_TRUE(five); // five components: every key filled, header segments standing in for ancestors
    EXPECT_EQ(five->size, 12);
    EXPECT_EQ(five->crc32, QStringLiteral("abc"));
    EXPECT_EQ(five->fileName, QStringLiteral("name"));
    EXPECT_EQ(five->parent, QStringLiteral("x"));
    EXPECT_EQ(five->grandParent, QStringLiteral("abc"));
    EXPECT_EQ(five->greatGrandParent, QStringLiteral("12"));

    const std::optional<LinkDescription> junk = parse("qlk://p/12ab/c/d/e/99999999999999999999999");
    ASSERT_TRUE(junk);
    EXPECT_EQ(junk->size, 0); // not a number
    const std::optional<LinkDescription> huge = parse("qlk://f/99999999999999999999999/FOLDER/a/b/c");
    ASSERT_TRUE(huge);
    EXPECT_TRUE(huge->dir);
    EXPECT_EQ(huge->numFiles, 0);
    const std::optional<LinkDescription> other = parse("qlkx://zz/-5/%00/%C3/%FF/%2F..%2Fetc");
    ASSERT_TRUE(other); // any type but "f" reads as a file; odd bytes do not stop the parse
    EXPECT_FALSE(other->dir);
    EXPECT_EQ(other->size, -5);
    EXPECT_EQ(other->crc32, QString(QChar(0)));
    EXPECT_EQ(other->fileName, QStringLiteral("/../etc"));
    EXPECT_TRUE(parse("qlk://p/1/%ZZ/a/b/c")); // a broken escape stays as text

    // Any scheme beginning "qlk" in lower case; `vandrel open` refuses the rest.
    EXPECT_TRUE(qlk_Schema::isLinkSchemeUrl(QStringLiteral("qlkanything://p/1/2/a/b")));

    const auto convert = [](const char *text) {
        return qlk_Schema::schemeUrlForServiceLink(QUrl(QString::fromUtf8(text)), kService);
    };
    EXPECT_EQ(
        convert("https://links.example.test/l/p/9/cbf43926/a/b%20c/d.txt")->toString(QUrl::FullyEncoded),
        QStringLiteral("qlk://p/9/cbf43926/a/b%20c/d.txt"));
    EXPECT_FALSE(convert("https://elsewhere.test/l/p/9/cbf43926/a/b/c/d.txt"));
    EXPECT_FALSE(convert("https://links.example.test/lp/9/cbf43926/a/b/c/d.txt"));
    EXPECT_FALSE(convert("https://links.example.test/l//9/x/a/b/c"));
    EXPECT_FALSE(qlk_Schema::schemeUrlForServiceLink(
        QUrl(QStringLiteral("https://links.example.test/l/p/1/2/3/4")), QString()));
}

TEST(LinkScoring, EachRuleAddsItsPointsForFiles)
{
    TempHome home;
    const QString original =
        home.writeFile(QStringLiteral("Users/ann/Documents/report.txt"), "original text");
    const LinkDescription link = *readBack(*qlk_Schema::qlkURLFor(original, kService));
    EXPECT_EQ(score(original, link), 12800); // everything matches

    // Moved far away: name, size and checksum, no ancestor.
    const QString moved = home.filePath(QStringLiteral("Moved/Deeper/Elsewhere/report.txt"));
    QDir().mkpath(QFileInfo(moved).absolutePath());
    ASSERT_TRUE(QFile::rename(original, moved));
    const LinkCandidate record = qlk_Schema::fileInfoDict(moved, link);
    EXPECT_EQ(record.score, 12500);
    EXPECT_EQ(record.path, moved);

    // Decoys where the original was: another size (no checksum read), then the same size.
    home.writeFile(QStringLiteral("Users/ann/Documents/report.txt"), "short");
    EXPECT_EQ(score(original, link), 10300);
    home.writeFile(QStringLiteral("Users/ann/Documents/report.txt"), "other content");
    EXPECT_EQ(score(original, link), 10800);
    // Ancestor names compare case-sensitively, one by one.
    const QString lower = home.writeFile(QStringLiteral("users/ann/documents/report.txt"), "other content");
    EXPECT_EQ(score(lower, link), 10600);
    // Same content, other name: only the checksum and ancestors count.
    const QString renamed = home.writeFile(QStringLiteral("Users/ann/Documents/Report.txt"), "original text");
    EXPECT_EQ(score(renamed, link), 2800);

    // A same-named folder where the file was: the name and nothing more.
    ASSERT_TRUE(QFile::remove(original));
    QDir().mkpath(original);
    EXPECT_EQ(score(original, link), 10000);
    // A candidate that vanished since the search counts as a file of size 0.
    EXPECT_EQ(score(home.filePath(QStringLiteral("Users/ann/Documents/gone/report.txt")), link), 10000);
}

TEST(LinkScoring, FoldersScoreOnTheirEntryCount)
{
    TempHome home;
    for (const char *name : {"Work/Projects/Box/a", "Work/Projects/Box/b", "Work/Projects/Box/.c"})
        home.writeFile(QString::fromLatin1(name), "x");
    const QString box = home.filePath(QStringLiteral("Work/Projects/Box"));
    const LinkDescription link = *readBack(*qlk_Schema::qlkURLFor(box, kService));
    EXPECT_EQ(score(box, link), 11300);
    home.writeFile(QStringLiteral("Work/Projects/Box/d"), "x");
    EXPECT_EQ(score(box, link), 10300);
    // A same-named file in the same folders is of the wrong kind.
    const QString file = home.writeFile(QStringLiteral("Work/Projects/Other/Box"), "x");
    EXPECT_EQ(score(file, link), 10000);
}
