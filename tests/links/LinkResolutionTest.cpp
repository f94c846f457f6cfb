#include "common/LogCapture.h"
#include "common/TempHome.h"
#include "links/LinkResolver.h"
#include "metadata/MetadataIndex.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QThread>

#include <gtest/gtest.h>

#include <algorithm>
#include <map>

namespace {

const QString kService = QStringLiteral("https://links.example.test/l");

// A running metadata index over a temporary tree, and a resolver whose reveals are recorded.
class LinkResolutionTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        QDir().mkpath(tree());
        MetadataConfig config;
        config.roots = {tree()};
        config.storePath = m_home.filePath(QStringLiteral(".cache/vandrel/index.db"));
        config.lowPriority = false; // a busy shared machine might never run an idle thread
        config.extract = false;
        m_index = std::make_unique<MetadataIndex>(config);
        m_index->start();
        ASSERT_TRUE(m_index->waitUntilIdle(60000));
        m_resolver =
            std::make_unique<LinkResolver>(*m_index, [this](const QString &path) { m_revealed << path; });
        QObject::connect(m_resolver.get(), &LinkResolver::resolved,
                         [this](const QUrl &url, const QString &path, qint64) { m_resolved[url] = path; });
    }

    void TearDown() override
    {
        m_resolver.reset();
        m_index->stop();
    }

    QString tree() const { return m_home.filePath(QStringLiteral("tree")); }
    QString write(const QString &relative, const QByteArray &content) const
    {
        return m_home.writeFile(QStringLiteral("tree/") + relative, content);
    }
    static void move(const QString &from, const QString &to)
    {
        QDir().mkpath(QFileInfo(to).absolutePath());
        ASSERT_TRUE(QFile::rename(from, to));
    }

    static QUrl linkFor(const QString &path)
    {
        const std::optional<QUrl> link = qlk_Schema::qlkURLFor(path, kService);
        return link ? qlk_Schema::schemeUrlForServiceLink(*link, kService).value_or(QUrl()) : QUrl();
    }

    // Waits until the index knows `count` items named `name` (it watches the tree on its own thread).
    bool indexed(const QString &name, qsizetype count) const
    {
        QElapsedTimer timer;
        timer.start();
        while (timer.elapsed() < 30000) {
            if (m_index->query(qlk_Schema::currentQueryString(name)).paths.size() == count)
                return true;
            QThread::msleep(20);
        }
        return false;
    }

    // Resolves the links at once and waits for every reveal; the paths revealed, "" for nothing found.
    QStringList resolve(const QList<QUrl> &links)
    {
        m_resolved.clear();
        for (const QUrl &link : links)
            m_resolver->findURL(link);
        QElapsedTimer timer;
        timer.start();
        while (m_resolved.size() < size_t(links.size()) && timer.elapsed() < 60000) {
            QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
            QThread::msleep(2);
        }
        QStringList paths;
        for (const QUrl &link : links)
            paths << (m_resolved.count(link) ? m_resolved[link] : QStringLiteral("<no answer>"));
        return paths;
    }

    TempHome m_home;
    std::unique_ptr<MetadataIndex> m_index;
    std::unique_ptr<LinkResolver> m_resolver;
    QStringList m_revealed;
    std::map<QUrl, QString> m_resolved;
};

std::vector<int> scores(const std::vector<LinkCandidate> &candidates)
{
    std::vector<int> result;
    for (const LinkCandidate &candidate : candidates)
        result.push_back(candidate.score);
    return result;
}

} // namespace

TEST_F(LinkResolutionTest, MovedItemsWinOverNewerSameNamedDecoys)
{
    const QString original = write(QStringLiteral("Users/ann/Documents/report.txt"), "quarterly figures");
    const QUrl link = linkFor(original);
    const QString moved = tree() + QStringLiteral("/Archive/2026/report.txt");
    move(original, moved);
    // Decoys written after the move are newer, so the index lists them first.
    QThread::msleep(1100);
    write(QStringLiteral("Users/ann/Documents/report.txt"), "short");
    write(QStringLiteral("Users/ann/Other/report.txt"), "quarterly FIGURES");
    ASSERT_TRUE(indexed(QStringLiteral("report.txt"), 3));

    const std::vector<LinkCandidate> candidates =
        m_resolver->searchForRequest(*qlk_Schema::parseQlkUrl(link));
    EXPECT_EQ(scores(candidates), (std::vector<int>{12500, 10700, 10300}));
    EXPECT_EQ(resolve({link}), QStringList{moved});
    EXPECT_EQ(m_revealed, QStringList{moved});

    // A folder: the one with the link's entry count wins over a same-named one in the old place.
    write(QStringLiteral("Work/Box/a"), "1");
    write(QStringLiteral("Work/Box/b"), "2");
    const QUrl folderLink = linkFor(tree() + QStringLiteral("/Work/Box"));
    const QString movedBox = tree() + QStringLiteral("/Old/Stuff/Box");
    move(tree() + QStringLiteral("/Work/Box"), movedBox);
    QDir().mkpath(tree() + QStringLiteral("/Work/Box"));
    ASSERT_TRUE(indexed(QStringLiteral("Box"), 2));
    EXPECT_EQ(resolve({folderLink}), QStringList{movedBox});

    // With one entry more it loses its 1000 points but, alone, is still revealed.
    write(QStringLiteral("Old/Stuff/Box/c"), "3");
    QDir(tree() + QStringLiteral("/Work/Box")).removeRecursively();
    ASSERT_TRUE(indexed(QStringLiteral("Box"), 1));
    EXPECT_EQ(resolve({folderLink}), QStringList{movedBox});
}

TEST_F(LinkResolutionTest, DeletedFilesAndUnaskableNamesFindNothing)
{
    LogCapture log;
    const QString doomed = write(QStringLiteral("a/b/c/doomed.txt"), "soon gone");
    const QString quoted = write(QStringLiteral("a/b/c/say \"hi\".txt"), "quoted");
    const QUrl doomedLink = linkFor(doomed);
    const QUrl quotedLink = linkFor(quoted);
    ASSERT_TRUE(indexed(QStringLiteral("doomed.txt"), 1));
    ASSERT_TRUE(QFile::remove(doomed));
    ASSERT_TRUE(indexed(QStringLiteral("doomed.txt"), 0));

    const QUrl tooShort(QStringLiteral("qlk://p/1/2/3"));
    EXPECT_EQ(resolve({doomedLink, quotedLink, tooShort}), (QStringList{QString(), QString(), QString()}));
    EXPECT_TRUE(m_revealed.isEmpty());
    const std::lock_guard guard(LogCapture::lock);
    EXPECT_EQ(LogCapture::lines.count(QStringLiteral("tell user nothing found")), 3);
    EXPECT_TRUE(std::any_of(LogCapture::lines.cbegin(), LogCapture::lines.cend(), [](const QString &line) {
        return line.startsWith(QStringLiteral("link search refused by the index:"));
    }));
}

TEST_F(LinkResolutionTest, SeveralResolutionsRunAtOnceEachByItself)
{
    QList<QUrl> links;
    QStringList moved;
    for (int i = 0; i < 6; ++i) {
        const QString name = QStringLiteral("file%1.bin").arg(i);
        const QString path = write(QStringLiteral("from/") + name, QByteArray(1000 + i, char('a' + i)));
        links << linkFor(path);
        moved << tree() + QStringLiteral("/to/%1/").arg(i) + name;
        move(path, moved.last());
        write(QStringLiteral("from/") + name, QByteArray(1000 + i, 'z')); // same size, other content
    }
    for (int i = 0; i < 6; ++i)
        ASSERT_TRUE(indexed(QStringLiteral("file%1.bin").arg(i), 2));
    EXPECT_EQ(resolve(links), moved);
}
