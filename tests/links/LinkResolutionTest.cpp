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

QUrl linkFor(const QString &path)
{
    const std::optional<QUrl> link = qlk_Schema::qlkURLFor(path, kService);
    return link ? qlk_Schema::schemeUrlForServiceLink(*link, kService).value_or(QUrl()) : QUrl();
}

} // namespace

TEST(LinkResolution, MovedItemsWinOverNewerDecoysAndGoneOrUnaskableOnesFindNothing)
{
    const LogCapture log;
    TempHome home;
    const auto at = [&](const QString &relative) { return home.filePath(u"tree/"_s + relative); };
    const auto write = [&](const QString &relative, const QByteArray &content) {
        return home.writeFile(u"tree/"_s + relative, content);
    };
    const auto move = [&](const QString &from, const QString &to) {
        QDir().mkpath(QFileInfo(at(to)).absolutePath());
        EXPECT_TRUE(QFile::rename(at(from), at(to)));
        return at(to);
    };
    QDir().mkpath(at({}));
    MetadataConfig config;
    config.roots = {at({})};
    config.storePath = home.filePath(u".cache/vandrel/index.db"_s);
    config.lowPriority = false; // a busy shared machine might starve a low-priority thread
    config.extract = false;
    MetadataIndex index(config);
    index.start();
    ASSERT_TRUE(index.waitUntilIdle(60000));
    // The index watches the tree on its own thread.
    const auto indexed = [&](const QString &name, qsizetype count) {
        return QTest::qWaitFor(
            [&] { return index.query(qlk_Schema::currentQueryString(name)).paths.size() == count; }, 30000);
    };

    QStringList revealed;
    QMap<QUrl, QString> resolved;
    LinkResolver resolver(index, [&](const QString &path) { revealed << path; });
    QObject::connect(&resolver, &LinkResolver::resolved,
                     [&](const QUrl &url, const QString &path, qint64) { resolved[url] = path; });
    // Resolves the links at once and waits for every answer; the paths revealed, "" for nothing found.
    const auto resolve = [&](const QList<QUrl> &links) {
        resolved.clear();
        for (const QUrl &link : links)
            resolver.findURL(link);
        EXPECT_TRUE(QTest::qWaitFor([&] { return resolved.size() == links.size(); }, 60000));
        QStringList paths;
        for (const QUrl &link : links)
            paths << resolved.value(link);
        return paths;
    };

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
    for (const LinkCandidate &candidate : resolver.searchForRequest(*qlk_Schema::parseQlkUrl(link)))
        scores.push_back(candidate.score);
    EXPECT_EQ(scores, (std::vector<int>{12500, 10700, 10300}));
    EXPECT_EQ(resolve({link, folderLink}), (QStringList{moved, movedBox}));
    EXPECT_EQ(revealed.size(), 2);

    // With one entry more the folder loses its 1000 points but, alone, is still revealed.
    write(u"Old/Stuff/Box/c"_s, "3");
    QDir(at(u"Work/Box"_s)).removeRecursively();
    ASSERT_TRUE(indexed(u"Box"_s, 1));
    EXPECT_EQ(resolve({folderLink}), QStringList{movedBox});

    // A deleted file, a name the index refuses to look for, a link too short to read: nothing revealed.
    const QString doomed = write(u"a/b/c/doomed.txt"_s, "soon gone");
    const QUrl doomedLink = linkFor(doomed);
    const QUrl quotedLink = linkFor(write(u"a/b/c/say \"hi\".txt"_s, "quoted"));
    ASSERT_TRUE(indexed(u"doomed.txt"_s, 1));
    ASSERT_TRUE(QFile::remove(doomed));
    ASSERT_TRUE(indexed(u"doomed.txt"_s, 0));
    revealed.clear();
    const QUrl tooShort(u"qlk://p/1/2/3"_s);
    EXPECT_EQ(resolve({doomedLink, quotedLink, tooShort}), (QStringList{QString(), QString(), QString()}));
    EXPECT_TRUE(revealed.isEmpty());
    const std::lock_guard guard(LogCapture::lock);
    EXPECT_EQ(LogCapture::lines.count(u"tell user nothing found"_s), 3);
    EXPECT_EQ(LogCapture::lines.filter(u"link search refused by the index:"_s).size(), 1);
}
