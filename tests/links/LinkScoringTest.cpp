#include "common/TempHome.h"
#include "links/qlk_Schema.h"

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>

namespace {

LinkDescription describe(const QString &path)
{
    const QString service = QStringLiteral("https://links.example.test");
    const std::optional<QUrl> link = qlk_Schema::qlkURLFor(path, service);
    const std::optional<QUrl> schemeUrl = qlk_Schema::schemeUrlForServiceLink(*link, service);
    return *qlk_Schema::parseQlkUrl(*schemeUrl);
}

int score(const QString &path, const LinkDescription &description)
{
    return qlk_Schema::fileInfoDict(path, description).score;
}

} // namespace

TEST(LinkScoring, EachRuleAddsItsPointsForFiles)
{
    TempHome home;
    const QString original =
        home.writeFile(QStringLiteral("Users/ann/Documents/report.txt"), "original text");
    const LinkDescription link = describe(original);
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
    const LinkDescription link = describe(box);
    EXPECT_EQ(score(box, link), 11300);
    home.writeFile(QStringLiteral("Work/Projects/Box/d"), "x");
    EXPECT_EQ(score(box, link), 10300);
    // A same-named file in the same folders is of the wrong kind.
    const QString file = home.writeFile(QStringLiteral("Work/Projects/Other/Box"), "x");
    EXPECT_EQ(score(file, link), 10000);
}
