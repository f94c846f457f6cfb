#include "common/LogCapture.h"
#include "common/TempHome.h"
#include "links/LinkResolver.h"
#include "metadata/MetadataIndex.h"

#include <QDir>
#include <QFile>
#include <QMap>
#include <QTest>
#include <QThread>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace {

const QString kService = u"https://links.example.test/l"_s;

MetadataConfig indexOver(const TempHome &home)
{
    MetadataConfig config;
    config.roots = {home.filePath(u"tree"_s)};
    config.storePath = home.filePath(u".cache/vandrel/index.db"_s);
    config.lowPriority = false; // a busy shared machine might starve a low-priority thread
    config.extract = false;
    return config;
}

// A running metadata index over a temporary tree, and a resolver whose reveals are recorded.
class LinkResolutionTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        QDir().mkpath(at({}));
        m_index.start();
        ASSERT_TRUE(m_index.waitUntilIdle(60000));
        QObject::connect(&m_resolver, &LinkResolver::resolved,
                         [this](const QUrl &url, const QString &path, qint64) { m_resolved[url] = path; });
    }

    QString at(const QString &relative) const { return m_home.filePath(u"tree/"_s + relative); }
    QString write(const QString &relative, const QByteArray &content) const
    {
        return m_home.writeFile(u"tree/"_s + relative, content);
    }
    QString move(const QString &from, const QString &to) const
    {
        QDir().mkpath(QFileInfo(at(to)).absolutePath());
        EXPECT_TRUE(QFile::rename(at(from), at(to)));
        return at(to);
    }

    static QUrl linkFor(const QString &path)
    {
        const std::optional<QUrl> link = qlk_Schema::qlkURLFor(path, kService);
        return link ? qlk_Schema::schemeUrlForServiceLink(*link, kService).value_or(QUrl()) : QUrl();
    }

    // Waits until the index, which watches the tree on its own thread, knows `count` items named `name`.
    bool indexed(const QString &name, qsizetype count) const
    {
        return QTest::qWaitFor(
            [&] { return m_index.query(qlk_Schema::currentQueryString(name)).paths.size() == count; }, 30000);
    }

    // Resolves the links at once and waits for every answer; the paths revealed, "" for nothing found.
    QStringList resolve(const QList<QUrl> &links)
    {
        m_resolved.clear();
        for (const QUrl &link : links)
            m_resolver.findURL(link);
        EXPECT_TRUE(QTest::qWaitFor([&] { return m_resolved.size() == links.size(); }, 60000));
        QStringList paths;
        for (const QUrl &link : links)
            paths << m_resolved.value(link);
        return paths;
    }

    TempHome m_home;
    QStringList m_revealed;
    QMap<QUrl, QString> m_resolved;
    MetadataIndex m_index{indexOver(m_home)};
    // Last, so it goes first: it waits for its resolutions while what they record still exists.
    LinkResolver m_resolver{m_index, [this](const QString &path) { m_revealed << path; }};
};

} // namespace

TEST_F(LinkResolutionTest, MovedItemsWinOverNewerSameNamedDecoysResolvedAtOnce)
{
    const QUrl link = linkFor(write(u"Users/ann/Documents/report.txt"_s, "quarterly figures"));
    write(u"Work/Box/a"_s, "1");
    write(u"Work/Box/b"_s, "2");
    const QUrl folderLink = linkFor(at(u"Work/Box"_s));
    const QString moved = move(u"Users/ann/Documents/report.txt"_s, u"Archive/2026/report.txt"_s);
    const QString movedBox = move(u"Work/Box"_s, u"Old/Stuff/Box"_s);
    // Decoys made after the moves are newer, so the index lists them first.
    QThread::msleep(1100);
    write(u"Users/ann/Documents/report.txt"_s, "short");
    write(u"Users/ann/Other/report.txt"_s, "quarterly FIGURES");
    QDir().mkpath(at(u"Work/Box"_s));
    ASSERT_TRUE(indexed(u"report.txt"_s, 3));
    ASSERT_TRUE(indexed(u"Box"_s, 2));

    std::vector<int> scores;
    for (const LinkCandidate &candidate : m_resolver.searchForRequest(*qlk_Schema::parseQlkUrl(link)))
        scores.push_back(candidate.score);
    EXPECT_EQ(scores, (std::vector<int>{12500, 10700, 10300}));
    EXPECT_EQ(resolve({link, folderLink}), (QStringList{moved, movedBox}));
    EXPECT_EQ(m_revealed.size(), 2);

    // With one entry more the folder loses its 1000 points but, alone, is still revealed.
    write(u"Old/Stuff/Box/c"_s, "3");
    QDir(at(u"Work/Box"_s)).removeRecursively();
    ASSERT_TRUE(indexed(u"Box"_s, 1));
    EXPECT_EQ(resolve({folderLink}), QStringList{movedBox});
}

TEST_F(LinkResolutionTest, DeletedFilesAndUnaskableNamesFindNothing)
{
    LogCapture log;
    const QString doomed = write(u"a/b/c/doomed.txt"_s, "soon gone");
    const QUrl doomedLink = linkFor(doomed);
    const QUrl quotedLink = linkFor(write(u"a/b/c/say \"hi\".txt"_s, "quoted"));
    ASSERT_TRUE(indexed(u"doomed.txt"_s, 1));
    ASSERT_TRUE(QFile::remove(doomed));
    ASSERT_TRUE(indexed(u"doomed.txt"_s, 0));

    const QUrl tooShort(u"qlk://p/1/2/3"_s);
    EXPECT_EQ(resolve({doomedLink, quotedLink, tooShort}), (QStringList{QString(), QString(), QString()}));
    EXPECT_TRUE(m_revealed.isEmpty());
    const std::lock_guard guard(LogCapture::lock);
    EXPECT_EQ(LogCapture::lines.count(u"tell user nothing found"_s), 3);
    EXPECT_EQ(LogCapture::lines.filter(u"link search refused by the index:"_s).size(), 1);
}
