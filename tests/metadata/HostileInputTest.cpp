#include "common/TempHome.h"
#include "metadata/MetadataIndex.h"

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>
#include <unistd.h>

namespace {

MetadataConfig configFor(const TempHome &home)
{
    MetadataConfig config;
    config.roots = {home.path()};
    config.storePath = home.filePath(QStringLiteral(".cache/vandrel/index.db"));
    config.lowPriority = false;
    return config;
}

QStringList relative(const TempHome &home, const QStringList &paths)
{
    QStringList result;
    for (const QString &path : paths)
        result.append(path.mid(home.path().size() + 1));
    result.sort();
    return result;
}

const QString kEverything = QStringLiteral("kMDItemFSName == \"*\"");

} // namespace

TEST(MetadataHostileInput, BadQueriesScopesAndCountsFailCleanly)
{
    TempHome home;
    home.writeFile(QStringLiteral("a/one.txt"), "x");
    const QString file = home.writeFile(QStringLiteral("a/two.txt"), "x");
    MetadataIndex index(configFor(home));
    ASSERT_TRUE(index.updateNow());

    for (const QString &bad :
         {QString(), QStringLiteral("   "), QStringLiteral("(((("), QStringLiteral("kMDItemFSName =="),
          QStringLiteral("kMDItemFSName == \"a\" &&"), QString(200000, u'('),
          QString::fromUtf16(u"a == \"\0\"", 9), QStringLiteral("x == \"") + QChar(0xdc00) + QChar(0xd800),
          QStringLiteral("* == 'unclosed")}) {
        const MetadataQueryResult result = index.query(bad);
        EXPECT_FALSE(result.ok) << bad.left(40).toStdString();
        EXPECT_TRUE(result.paths.isEmpty());
    }
    // Well-formed but odd: answered, never loosely.
    EXPECT_TRUE(index.query(QStringLiteral("kMDItemFSName == \"\"")).paths.isEmpty());
    EXPECT_TRUE(index.query(QStringLiteral("kMDItemDisplayName == \"*\\0*\"cd")).paths.isEmpty());
    EXPECT_EQ(index.query(QStringLiteral("* == \"\"cdw")).paths.size(), 4u); // every word begins with ""
    EXPECT_TRUE(index.query(QStringLiteral("kMDItemTextContent == \"***\"cdw")).ok);

    // Counts and scopes.
    EXPECT_TRUE(index.query(kEverything, {}, {}, true, 0).paths.isEmpty());
    EXPECT_TRUE(index.query(kEverything, {}, {}, true, -5).paths.isEmpty());
    EXPECT_EQ(index.query(kEverything, {}, {}, true, std::numeric_limits<int>::max()).paths.size(), 4u);
    EXPECT_EQ(index.query(kEverything, {}, {}, false, 1).paths.size(), 1u);
    EXPECT_EQ(relative(home, index.query(kEverything, home.filePath(QStringLiteral("a/../a/./"))).paths),
              (QStringList{"a/one.txt", "a/two.txt"}));
    EXPECT_TRUE(index.query(kEverything, home.filePath(QStringLiteral("missing"))).paths.isEmpty());
    EXPECT_TRUE(index.query(kEverything, file).paths.isEmpty()); // a file is no scope
    EXPECT_TRUE(index.query(kEverything, QStringLiteral("relative/path")).ok);
    // "/" and an ancestor of every root both mean the whole index.
    EXPECT_EQ(index.query(kEverything, QStringLiteral("/")).paths.size(), 4u);
    EXPECT_EQ(index.query(kEverything, QFileInfo(home.path()).absolutePath()).paths.size(), 4u);
}

TEST(MetadataHostileInput, SettingsOddNamesAndLinksAreHonoured)
{
    TempHome home;
    home.writeFile(QStringLiteral("keep/a.txt"), "x");
    home.writeFile(QStringLiteral("private/b.txt"), "x");
    home.writeFile(QStringLiteral("work/build/c.txt"), "x");
    home.writeFile(QStringLiteral("work/src/d.txt"), "x");
    home.writeFile(QStringLiteral("nested/e.txt"), "x");
    // A name that is not UTF-8, and a link back up the tree that must not be followed.
    const QByteArray rawName = QFile::encodeName(home.path()) + "/keep/caf\xe9.txt";
    QFile raw(QFile::decodeName(rawName));
    ASSERT_TRUE(raw.open(QIODevice::WriteOnly));
    raw.close();
    ASSERT_EQ(symlink(qPrintable(home.path()), qPrintable(home.filePath(QStringLiteral("keep/loop")))), 0);

    MetadataConfig config = configFor(home);
    config.excludes = {home.filePath(QStringLiteral("private")), QStringLiteral("build")};
    config.roots.append(home.filePath(QStringLiteral("nested"))); // inside the home: indexed once
    {
        MetadataIndex index(config);
        ASSERT_TRUE(index.updateNow());
        EXPECT_EQ(relative(home, index.query(QStringLiteral("kMDItemFSName == \"*.txt\"")).paths),
                  (QStringList{"keep/a.txt", QFile::decodeName("keep/caf\xe9.txt"), "nested/e.txt",
                               "work/src/d.txt"}));
        EXPECT_EQ(index.query(QStringLiteral("kMDItemFSName == \"loop\"")).paths.size(), 1u);
        EXPECT_TRUE(index.item(QFile::decodeName(rawName)));
    }
    // A root taken out of the settings leaves the index at the next start.
    config.roots = {home.filePath(QStringLiteral("work"))};
    MetadataIndex index(config);
    ASSERT_TRUE(index.updateNow());
    EXPECT_EQ(relative(home, index.query(QStringLiteral("kMDItemFSName == \"*.txt\"")).paths),
              QStringList{"work/src/d.txt"});
}
