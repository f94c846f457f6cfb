#include "common/TempHome.h"
#include "links/qlk_Schema.h"
#include "support/vd_Checksum.h"

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>
#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {

const QString kService = u"https://links.example.test/l"_s;

// The link as a person receives it (text), turned into the URL the link scheme delivers, read back.
std::optional<LinkDescription> readBack(const QUrl &link)
{
    const std::optional<QUrl> schemeUrl =
        qlk_Schema::schemeUrlForServiceLink(QUrl(link.toString(QUrl::FullyEncoded)), kService);
    if (!schemeUrl)
        return std::nullopt;
    return qlk_Schema::parseQlkUrl(QUrl(schemeUrl->toString(QUrl::FullyEncoded)));
}

// Every field of a description in declaration order, joined by "|", so that one comparison shows them
// all: kind, entries, size, checksum, name, parent, grandparent, great-grandparent.
QString fields(const std::optional<LinkDescription> &d)
{
    if (!d)
        return u"no link"_s;
    const QString kind = d->dir ? u"folder"_s : u"file"_s;
    return QStringList{kind,
                       QString::number(d->numFiles),
                       QString::number(d->size),
                       d->crc32,
                       d->fileName,
                       d->parent,
                       d->grandParent,
                       d->greatGrandParent}
        .join(u'|');
}

QStringList segments(const QUrl &link)
{
    return link.toString(QUrl::FullyEncoded).mid(kService.size() + 1).split(u'/');
}

int score(const QString &path, const LinkDescription &description)
{
    return qlk_Schema::fileInfoDict(path, description).score;
}

} // namespace

TEST(LinkRoundTrip, OddNamesFoldersAndItemsNearTheRootComeBackAsTheyWere)
{
    TempHome home;
    for (const QString &name :
         {u"say \"hi\" 'now'.txt"_s, u"Café Résumé.txt"_s, u"🙂 party 🎉.txt"_s,
          u"100% #1 ?a=b&c+d;e.txt"_s, u"back\\slash %41 .txt"_s, QString(240, u'x') + u".txt"_s}) {
        const QString path = home.writeFile(u"Ünï code/a b/\"q\"/"_s + name, name.toUtf8());
        const std::optional<QUrl> link = qlk_Schema::qlkURLFor(path, kService + u'/');
        ASSERT_TRUE(link) << name.toStdString();
        EXPECT_EQ(fields(readBack(*link)),
                  QStringList({u"file"_s, u"0"_s, QString::number(name.toUtf8().size()),
                               vd_Checksum::crc32(path), name, u"\"q\""_s, u"a b"_s, u"Ünï code"_s})
                      .join(u'|'));
    }

    // Encoding: spaces and non-ASCII letters as upper-case hex of their UTF-8 bytes; the URL-path
    // characters stay as they are.
    const QString spaced = home.writeFile(u"Docs/é x!$&'()*+,:=@~.txt"_s, "123456789");
    const QStringList parts = segments(*qlk_Schema::qlkURLFor(spaced, kService));
    EXPECT_EQ(parts.last(), u"%C3%A9%20x!$&'()*+,:=@~.txt"_s);
    EXPECT_EQ(parts.mid(0, 3), (QStringList{u"p"_s, u"9"_s, u"cbf43926"_s}));
    EXPECT_EQ(parts.mid(4, 2), (QStringList{qlk_Schema::pathComponents(home.path()).last(), u"Docs"_s}));

    // Folders count their direct entries, hidden ones included.
    for (const char *name : {"Box/one", "Box/two", "Box/.hidden", "Box/inner/deeper"})
        home.writeFile(QString::fromLatin1(name), "x");
    QDir(home.path()).mkpath(u"Empty"_s);

    const std::optional<QUrl> box = qlk_Schema::qlkURLFor(home.filePath(u"Box"_s), kService);
    ASSERT_TRUE(box);
    EXPECT_EQ(segments(*box).mid(0, 3), (QStringList{u"f"_s, u"4"_s, u"FOLDER"_s}));
    EXPECT_TRUE(fields(readBack(*box)).startsWith(u"folder|4|0||Box|"_s))
        << fields(readBack(*box)).toStdString();
    EXPECT_EQ(segments(*qlk_Schema::qlkURLFor(home.filePath(u"Empty"_s), kService)).value(1), u"0"_s);

    // /tmp has two components, the root and "tmp": the root stands as the parent, a lone slash.
    const std::optional<QUrl> tmp = qlk_Schema::qlkURLFor(u"/tmp"_s, kService);
    ASSERT_TRUE(tmp);
    EXPECT_TRUE(tmp->toString(QUrl::FullyEncoded).endsWith(u"/FOLDER///tmp"_s));

    // No item (a dangling symbolic link is judged by its target), no base address, an address that is not
    // a URL: no link.
    QFile::link(home.filePath(u"nowhere"_s), home.filePath(u"dangling"_s));
    EXPECT_FALSE(qlk_Schema::qlkURLFor(home.filePath(u"gone.txt"_s), kService));
    EXPECT_FALSE(qlk_Schema::qlkURLFor(home.filePath(u"dangling"_s), kService));
    EXPECT_FALSE(qlk_Schema::qlkURLFor(home.filePath(u"Box/one"_s), QString()));
    EXPECT_FALSE(qlk_Schema::qlkURLFor(home.filePath(u"Box/one"_s), u"ht tp://x y"_s));
    // A file whose content cannot be read (a pipe is refused, not waited on) still gets a link, with an
    // empty checksum segment.
    const QString pipe = home.filePath(u"pipe"_s);
    ASSERT_EQ(::mkfifo(QFile::encodeName(pipe).constData(), 0600), 0);
    const std::optional<QUrl> pipeLink = qlk_Schema::qlkURLFor(pipe, kService);
    ASSERT_TRUE(pipeLink);
    EXPECT_EQ(segments(*pipeLink).mid(0, 3), (QStringList{u"p"_s, u"0"_s, QString()}));
    EXPECT_EQ(segments(*pipeLink).last(), u"pipe"_s);
}

TEST(LinkRoundTrip, MalformedLinksGiveNothingOrZeroesNeverACrash)
{
    const std::vector<std::pair<const char *, QString>> cases = {
        {"qlk://p/1/2/3", u"no link"_s}, // four components with the root: too short
        {"qlk:", u"no link"_s},
        // Five components: every key filled, header segments standing in for ancestors.
        {"qlk://p/12/abc/x/name", u"file|0|12|abc|name|x|abc|12"_s},
        // Numbers that are not numbers, or too big, read as 0.
        {"qlk://p/12ab/c/d/e/9999999999999999999999", u"file|0|0|c|9999999999999999999999|e|d|c"_s},
        {"qlk://f/99999999999999999999999/FOLDER/a/b/c", u"folder|0|0||c|b|a|FOLDER"_s},
        // Any type but "f" reads as a file; odd bytes and broken escapes do not stop the parse.
        {"qlkx://zz/-5/%00/%C3/%FF/%2F..%2Fetc", u"file|0|-5|\0|/../etc|\uFFFD|\uFFFD|\0"_s},
        {"qlk://p/1/%ZZ/a/b/c", u"file|0|1|%ZZ|c|b|a|%ZZ"_s},
    };
    for (const auto &[text, expected] : cases)
        EXPECT_EQ(fields(qlk_Schema::parseQlkUrl(QUrl(QString::fromUtf8(text)))), expected) << text;

    // Any scheme beginning "qlk" in lower case; `vandrel open` refuses the rest.
    EXPECT_TRUE(qlk_Schema::isLinkSchemeUrl(u"qlkanything://p/1/2/a/b"_s));

    const auto convert = [](const char *text, const QString &service = kService) {
        return qlk_Schema::schemeUrlForServiceLink(QUrl(QString::fromUtf8(text)), service);
    };
    EXPECT_EQ(
        convert("https://links.example.test/l/p/9/cbf43926/a/b%20c/d.txt")->toString(QUrl::FullyEncoded),
        u"qlk://p/9/cbf43926/a/b%20c/d.txt"_s);
    for (const char *foreign :
         {"https://elsewhere.test/l/p/9/cbf43926/a/b/c/d.txt",
          "https://links.example.test/lp/9/cbf43926/a/b/c/d.txt", "https://links.example.test/l//9/x/a/b/c"})
        EXPECT_FALSE(convert(foreign)) << foreign;
    EXPECT_FALSE(convert("https://links.example.test/l/p/1/2/3/4", QString()));
}

TEST(LinkScoring, EachRuleAddsItsPointsForFilesAndFolders)
{
    TempHome home;
    const QString original = home.writeFile(u"Users/ann/Documents/report.txt"_s, "original text");
    const LinkDescription link = *readBack(*qlk_Schema::qlkURLFor(original, kService));
    EXPECT_EQ(score(original, link), 12800); // everything matches

    // The same file far away: name, size and checksum, no ancestor.
    EXPECT_EQ(score(home.writeFile(u"Moved/Deeper/Elsewhere/report.txt"_s, "original text"), link), 12500);

    // Decoys where the original was: another size (no checksum read), then the same size.
    home.writeFile(u"Users/ann/Documents/report.txt"_s, "short");
    EXPECT_EQ(score(original, link), 10300);
    home.writeFile(u"Users/ann/Documents/report.txt"_s, "other content");
    EXPECT_EQ(score(original, link), 10800);
    // Ancestor names compare case-sensitively, one by one.
    EXPECT_EQ(score(home.writeFile(u"users/ann/documents/report.txt"_s, "other content"), link), 10600);
    // Same content, other name: only the checksum and ancestors count.
    EXPECT_EQ(score(home.writeFile(u"Users/ann/Documents/Report.txt"_s, "original text"), link), 2800);

    // A same-named folder where the file was: the name and nothing more.
    ASSERT_TRUE(QFile::remove(original));
    QDir().mkpath(original);
    EXPECT_EQ(score(original, link), 10000);
    // A candidate that vanished since the search counts as a file of size 0.
    EXPECT_EQ(score(home.filePath(u"Users/ann/Documents/gone/report.txt"_s), link), 10000);

    // Folders score on their entry count; a same-named file is of the wrong kind.
    for (const char *name : {"Work/Projects/Box/a", "Work/Projects/Box/b", "Work/Projects/Box/.c"})
        home.writeFile(QString::fromLatin1(name), "x");
    const QString box = home.filePath(u"Work/Projects/Box"_s);
    const LinkDescription folder = *readBack(*qlk_Schema::qlkURLFor(box, kService));
    EXPECT_EQ(score(box, folder), 11300);
    home.writeFile(u"Work/Projects/Box/d"_s, "x");
    EXPECT_EQ(score(box, folder), 10300);
    EXPECT_EQ(score(home.writeFile(u"Work/Projects/Other/Box"_s, "x"), folder), 10000);
}
