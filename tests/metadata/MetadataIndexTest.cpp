#include "metadata/MetadataIndex.h"

#include "common/TempHome.h"
#include "common/TestPdf.h"
#include "platform/Volumes.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <QThread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <vips/vips.h>

namespace {

void makePng(const QString &path, int width, int height)
{
    ASSERT_EQ(VIPS_INIT("test"), 0);
    VipsImage *image = nullptr;
    ASSERT_EQ(vips_black(&image, width, height, nullptr), 0);
    ASSERT_EQ(vips_pngsave(image, QFile::encodeName(path).constData(), nullptr), 0);
    g_object_unref(image);
}

class MetadataIndexTest : public ::testing::Test
{
protected:
    MetadataConfig config() const
    {
        MetadataConfig config;
        config.roots = {m_home.path()};
        config.storePath = m_home.filePath(QStringLiteral(".cache/vandrel/index.db"));
        config.lowPriority = false; // shared test machines are busy; keep the tests quick
        return config;
    }

    // Paths below the home, sorted.
    QStringList relative(const QStringList &paths) const
    {
        QStringList result;
        for (const QString &path : paths)
            result.append(path.mid(m_home.path().size() + 1));
        result.sort();
        return result;
    }
    QStringList names(const MetadataIndex &index, const QString &query, const QString &scope = {}) const
    {
        return relative(index.query(query, scope).paths);
    }

    // Polls until `query` gives `expected`, for at most two seconds.
    ::testing::AssertionResult eventually(const MetadataIndex &index, const QString &query,
                                          const QStringList &expected) const
    {
        QElapsedTimer timer;
        timer.start();
        QStringList got;
        while (timer.elapsed() < 2000) {
            got = names(index, query);
            if (got == expected)
                return ::testing::AssertionSuccess();
            QThread::msleep(20);
        }
        return ::testing::AssertionFailure()
               << query.toStdString() << " gave " << got.join(u',').toStdString();
    }

    static QString nameQuery(const QString &text)
    {
        return QStringLiteral(
                   "( kMDItemDisplayName == \"*%1*\"cd ) && (kMDItemSupportFileType != MDSystemFile)")
            .arg(text);
    }

    static QString anyQuery(const QString &term)
    {
        return QStringLiteral("( * == \"%1*\"cdw || kMDItemTextContent == \"%1*\"cdw )").arg(term);
    }

    const QString everything = QStringLiteral("kMDItemFSName == \"*\"");
    TempHome m_home;
};

} // namespace

TEST_F(MetadataIndexTest, CrawlsExtractsAndAnswersEveryKindOfQuery)
{
    const QString pdf = QStringLiteral("Documents/Résumé.pdf"), mail = QStringLiteral("Mail/1.eml"),
                  tagged = QStringLiteral("Documents/tagged.txt"),
                  png = QStringLiteral("Pictures/drawing.png");
    m_home.writeFile(pdf, makePdf("quarterly invoice zebra"));
    m_home.writeFile(QStringLiteral("Documents/notes.txt"), "Meeting about the Quarterly budget.\n");
    m_home.writeFile(mail, "From: Bob <b@x>\nSubject: =?UTF-8?B?w4l0w6kgcGxhbnM=?=\n\nLet us go hiking.\n");
    m_home.writeFile(QStringLiteral("Code/node_modules/skip.txt"), "quarterly");
    m_home.writeFile(QStringLiteral(".hidden/secret.txt"), "quarterly");
    m_home.writeFile(QStringLiteral("Pictures/photo.jpg"), "not really a jpeg");
    m_home.writeFile(QStringLiteral("Pictures/.thumbnail.png"), "x");
    m_home.writeFile(QStringLiteral("Work/Caches/plan.txt"), "x");
    makePng(m_home.filePath(png), 40, 30);
    m_home.writeFile(tagged, "plain");
    setxattr(QFile::encodeName(m_home.filePath(tagged)).constData(), "user.xdg.tags", "Red,Blue", 8, 0);

    MetadataIndex index(config());
    ASSERT_TRUE(index.updateNow());
    const std::pair<QString, QStringList> answers[] = {
        {nameQuery("skip"), {}},
        {nameQuery("secret"), {}},
        {nameQuery("thumbnail"), {}}, // a hidden file is a system file
        // A folder merely named Caches is the user's own, and so is what it holds.
        {nameQuery("caches"), {"Work/Caches"}},
        {nameQuery("plan.t"), {"Work/Caches/plan.txt"}},
        {"kMDItemContentTypeTree == \"public.image\"",
         {"Pictures/.thumbnail.png", png, "Pictures/photo.jpg"}},
        // Word prefixes over names, text, PDF text and metadata, mail subjects and tags; never inside a word.
        {anyQuery("quart"), {pdf, "Documents/notes.txt"}},
        {anyQuery("zebra"), {pdf}},
        {anyQuery("audit"), {pdf}},
        {anyQuery("ete"), {mail}},
        {anyQuery("red"), {tagged}},
        {anyQuery("uarterly"), {}},
        {"kMDItemTitle == \"tax*\"c", {pdf}}};
    for (const auto &[query, expected] : answers)
        EXPECT_EQ(names(index, query), expected) << query.toStdString();

    EXPECT_FALSE(
        index.query(QStringLiteral("kMDItemFSName == \"x\""), {}, QStringLiteral("kMDItemFSSize")).ok);
    // Malformed queries fail cleanly; the last would match "notes.txt" if the stray quote were dropped.
    for (const QString &bad :
         {QStringLiteral("   "), QString(200000, u'('), QString::fromUtf16(u"a == \"\0\"", 9),
          QStringLiteral("x == \"") + QChar(0xdc00) + QChar(0xd800),
          QStringLiteral("kMDItemFSName == \"notes\".txt\"")}) {
        const MetadataQueryResult result = index.query(bad);
        EXPECT_FALSE(result.ok) << bad.left(40).toStdString();
        EXPECT_TRUE(result.paths.isEmpty());
    }
    // Well-formed but odd: answered, never loosely. Everything is the home, its six folders and eight files.
    const std::size_t all = 15;
    EXPECT_TRUE(index.query(QStringLiteral("kMDItemFSName == \"\"")).paths.isEmpty());
    EXPECT_TRUE(index.query(QStringLiteral("kMDItemDisplayName == \"*\\0*\"cd")).paths.isEmpty());
    EXPECT_EQ(index.query(QStringLiteral("* == \"\"cdw")).paths.size(), all); // every word begins with ""
    EXPECT_TRUE(index.query(QStringLiteral("kMDItemTextContent == \"***\"cdw")).ok);

    EXPECT_TRUE(index.query(everything, {}, {}, true, 0).paths.isEmpty());
    EXPECT_TRUE(index.query(everything, {}, {}, true, -5).paths.isEmpty());
    EXPECT_EQ(index.query(everything, {}, {}, true, std::numeric_limits<int>::max()).paths.size(), all);
    EXPECT_EQ(index.query(everything, {}, {}, false, 1).paths.size(), 1u);
    EXPECT_EQ(relative(index.query(everything, m_home.filePath(QStringLiteral("Work/../Work/./"))).paths),
              (QStringList{"Work/Caches", "Work/Caches/plan.txt"}));
    EXPECT_TRUE(index.query(everything, m_home.filePath(QStringLiteral("missing"))).paths.isEmpty());
    EXPECT_TRUE(index.query(everything, m_home.filePath(tagged)).paths.isEmpty()); // a file is no scope
    EXPECT_TRUE(index.query(everything, QStringLiteral("relative/path")).ok);
    // "/" and an ancestor of every root both mean the whole index.
    EXPECT_EQ(index.query(everything, QStringLiteral("/")).paths.size(), all);
    EXPECT_EQ(index.query(everything, QFileInfo(m_home.path()).absolutePath()).paths.size(), all);

    const std::tuple<QString, const char *, QStringList> attributes[] = {
        {pdf, "kMDItemNumberOfPages", {"1"}},
        {pdf, "kMDItemPageWidth", {"612"}},
        {pdf, "kMDItemKeywords", {"finance", "audit"}},
        {pdf, "kMDItemContentType", {"com.adobe.pdf"}},
        {png, "kMDItemPixelWidth", {"40"}},
        {png, "kMDItemPixelHeight", {"30"}},
        {mail, "kMDItemDisplayName", {"Été plans"}},
        {tagged, "kMDItemOMUserTags", {"Red", "Blue"}}};
    for (const auto &[file, key, value] : attributes) {
        const auto item = index.item(m_home.filePath(file));
        ASSERT_TRUE(item) << file.toStdString();
        EXPECT_EQ(item->value(QLatin1String(key)).toStringList(), value) << key;
    }
    EXPECT_FALSE(index.item(m_home.filePath(QStringLiteral(".hidden/secret.txt"))));
    EXPECT_FALSE(index.item(QStringLiteral("/nonexistent/file")));
    // Progress after the first indexing: everything read, nothing waiting; node_modules and hidden folders
    // left out.
    const MetadataIndexStatus status = index.status();
    EXPECT_EQ(status.files, 8);
    EXPECT_EQ(status.filesRead, status.files);
    EXPECT_EQ(status.foldersRead, status.folders);
    EXPECT_EQ(status.foldersWaiting + status.contentsWaiting, 0);
    EXPECT_GE(status.contentsRead, 7);
    EXPECT_FALSE(status.crawling);

    // A scope outside the indexed roots is walked live.
    EXPECT_EQ(names(index, nameQuery(QStringLiteral("secret")), m_home.filePath(QStringLiteral(".hidden"))),
              QStringList{".hidden/secret.txt"});
}

// Creations, renames, moves within, into and out of the tree, removals, rewrites and a rename over another
// file all show within two seconds.
TEST_F(MetadataIndexTest, WatcherShowsChangesWithinTwoSeconds)
{
    QTemporaryDir outside;
    m_home.writeFile(QStringLiteral("a/old name.txt"), "one");
    m_home.writeFile(QStringLiteral("a/sub/deep.txt"), "two");
    m_home.writeFile(QStringLiteral("a/leaving/x1.txt"), "x");
    m_home.writeFile(QStringLiteral("a/target.txt"), "old");
    m_home.writeFile(QStringLiteral("a/source.txt"), "new");
    QDir(m_home.path()).mkpath(QStringLiteral("b"));
    QDir(outside.path()).mkpath(QStringLiteral("arriving/sub"));
    QFile(outside.filePath(QStringLiteral("arriving/sub/y1.txt"))).open(QIODevice::WriteOnly);
    MetadataIndex index(config());
    index.start();
    ASSERT_TRUE(index.waitUntilIdle(10000));
    const auto moved = [&](const QString &from, const QString &to) {
        return ::rename(QFile::encodeName(from).constData(), QFile::encodeName(to).constData()) == 0;
    };

    m_home.writeFile(QStringLiteral("a/created.txt"), "new");
    EXPECT_TRUE(eventually(index, nameQuery(QStringLiteral("created")), {"a/created.txt"}));
    ASSERT_TRUE(moved(m_home.filePath("a/old name.txt"), m_home.filePath("a/new name.txt")));
    EXPECT_TRUE(eventually(index, nameQuery(QStringLiteral("name")), {"a/new name.txt"}));
    ASSERT_TRUE(moved(m_home.filePath("a/sub"), m_home.filePath("b/moved")));
    EXPECT_TRUE(eventually(index, nameQuery(QStringLiteral("deep")), {"b/moved/deep.txt"}));
    ASSERT_TRUE(QFile::remove(m_home.filePath(QStringLiteral("a/created.txt"))));
    EXPECT_TRUE(eventually(index, nameQuery(QStringLiteral("created")), {}));
    m_home.writeFile(QStringLiteral("b/moved/deep.txt"), "now about flamingos");
    EXPECT_TRUE(eventually(index, anyQuery(QStringLiteral("flaming")), {"b/moved/deep.txt"}));
    ASSERT_TRUE(moved(m_home.filePath("a/leaving"), outside.filePath("left")));
    EXPECT_TRUE(eventually(index, nameQuery(QStringLiteral("x1")), {}));
    ASSERT_TRUE(moved(outside.filePath("arriving"), m_home.filePath("a/arrived")));
    EXPECT_TRUE(eventually(index, nameQuery(QStringLiteral("y1")), {"a/arrived/sub/y1.txt"}));
    ASSERT_TRUE(moved(m_home.filePath("a/source.txt"), m_home.filePath("a/target.txt")));
    EXPECT_TRUE(eventually(index, nameQuery(QStringLiteral("source")), {}));
    EXPECT_TRUE(eventually(index, nameQuery(QStringLiteral("target")), {"a/target.txt"}));
    // A new folder full of files, then one written inside it at once.
    m_home.writeFile(QStringLiteral("c/d/e/inner.txt"), "x");
    m_home.writeFile(QStringLiteral("c/d/e/second.txt"), "x");
    EXPECT_TRUE(eventually(index, nameQuery(QStringLiteral("second")), {"c/d/e/second.txt"}));
}

TEST_F(MetadataIndexTest, RescanAndRestartCatchUpWithMissedChanges)
{
    m_home.writeFile(QStringLiteral("keep/stays.txt"), "x");
    m_home.writeFile(QStringLiteral("keep/goes.txt"), "x");
    MetadataConfig unwatched = config();
    unwatched.watch = false; // changes below are missed, as in an event-queue overflow
    {
        MetadataIndex index(unwatched);
        index.start();
        ASSERT_TRUE(index.waitUntilIdle(10000));
        m_home.writeFile(QStringLiteral("keep/arrived.txt"), "x");
        EXPECT_TRUE(names(index, nameQuery(QStringLiteral("arrived"))).isEmpty());
        index.rescan();
        EXPECT_TRUE(eventually(index, nameQuery(QStringLiteral("arrived")), {"keep/arrived.txt"}));
    }
    // Changes while no agent runs are caught up from folder modification times at the next start.
    ASSERT_TRUE(QFile::remove(m_home.filePath(QStringLiteral("keep/goes.txt"))));
    m_home.writeFile(QStringLiteral("new folder/later.txt"), "x");
    QDir(m_home.path()).rename(QStringLiteral("keep/stays.txt"), QStringLiteral("keep/renamed.txt"));
    MetadataIndex index(unwatched);
    ASSERT_TRUE(index.updateNow());
    EXPECT_TRUE(names(index, nameQuery(QStringLiteral("goes"))).isEmpty());
    EXPECT_EQ(names(index, nameQuery(QStringLiteral("later"))), QStringList{"new folder/later.txt"});
    EXPECT_EQ(names(index, nameQuery(QStringLiteral("renamed"))), QStringList{"keep/renamed.txt"});
    EXPECT_EQ(index.status().files, 3);
}

TEST(Volumes, OnlyRealLocalFileSystemsAtUserMountPoints)
{
    EXPECT_TRUE(Volumes::isLocalVolume(QStringLiteral("/media/ann/USB"), "vfat", "/dev/sdb1"));
    EXPECT_TRUE(Volumes::isLocalVolume(QStringLiteral("/"), "zfs", "rpool/ROOT/debian"));
    EXPECT_FALSE(Volumes::isLocalVolume(QStringLiteral("/boot/efi"), "vfat", "/dev/sda1"));
    EXPECT_FALSE(Volumes::isLocalVolume(QStringLiteral("/media/ann/iso"), "ext4", "/dev/loop0"));
    EXPECT_FALSE(Volumes::isLocalVolume(QStringLiteral("/mnt/share"), "nfs4", "server:/export"));

    // The index covers the user's own volumes only: never "/" nor another system mount.
    EXPECT_EQ(MetadataConfig::userVolumes({QStringLiteral("/"), QStringLiteral("/run/media/ann/Disk/"),
                                           QStringLiteral("/mediaX/a"), QStringLiteral("/mnt"),
                                           QStringLiteral("/mnt/data"), QStringLiteral("/boot/efi")}),
              (QStringList{"/run/media/ann/Disk", "/mnt/data"}));
    EXPECT_EQ(MetadataConfig::defaults().roots.value(0), QDir::homePath());
}

// A file written while the first crawl of a large tree runs is found by name before the crawl ends, not
// after it.
TEST_F(MetadataIndexTest, ChangeDuringFirstCrawlGoesBeforeItsBacklog)
{
    for (int folder = 0; folder < 500; ++folder) {
        for (int file = 0; file < 100; ++file)
            m_home.writeFile(QStringLiteral("tree/%1/file %2.txt").arg(folder).arg(file), {});
    }
    MetadataIndex index(config());
    index.start();
    // The crawl shows its first names once it has read a few thousand; by then it watches the home folder.
    QElapsedTimer timer;
    timer.start();
    while (names(index, nameQuery(QStringLiteral("file"))).isEmpty() && timer.elapsed() < 60000)
        QThread::msleep(1);
    ASSERT_TRUE(index.status().crawling);

    m_home.writeFile(QStringLiteral("written meanwhile.txt"), "x");
    bool found = false;
    qint64 filesWhenFound = 0;
    while (!found && timer.elapsed() < 120000) {
        filesWhenFound = index.status().files;
        found = names(index, nameQuery(QStringLiteral("meanwhile"))) == QStringList{"written meanwhile.txt"};
        QThread::msleep(5);
    }
    EXPECT_TRUE(found);

    // The crawl goes on to the end with the table filled as it goes, and nothing is lost or doubled.
    ASSERT_TRUE(index.waitUntilIdle(120000));
    EXPECT_EQ(index.query(nameQuery(QStringLiteral("file"))).paths.size(), 600);
    EXPECT_EQ(index.status().files, 50001);
    EXPECT_EQ(names(index, nameQuery(QStringLiteral("meanwhile"))), QStringList{"written meanwhile.txt"});
    // Found while most of the tree was still unread.
    EXPECT_LT(filesWhenFound, 45000);
}

TEST_F(MetadataIndexTest, SettingsOddNamesAndLinksAreHonoured)
{
    m_home.writeFile(QStringLiteral("keep/a.txt"), "x");
    m_home.writeFile(QStringLiteral("private/b.txt"), "x");
    m_home.writeFile(QStringLiteral("work/build/c.txt"), "x");
    m_home.writeFile(QStringLiteral("work/src/d.txt"), "x");
    m_home.writeFile(QStringLiteral("nested/e.txt"), "x");
    // A name that is not UTF-8 (made below Qt, which cannot spell it), and a link back up the tree that
    // must not be followed.
    const QByteArray rawName = QFile::encodeName(m_home.path()) + "/keep/caf\xe9.txt";
    ASSERT_EQ(close(creat(rawName.constData(), 0644)), 0);
    ASSERT_EQ(symlink(qPrintable(m_home.path()), qPrintable(m_home.filePath(QStringLiteral("keep/loop")))),
              0);

    MetadataConfig settings = config();
    settings.excludes = {m_home.filePath(QStringLiteral("private")), QStringLiteral("build")};
    settings.roots.append(m_home.filePath(QStringLiteral("nested"))); // inside the home: indexed once
    {
        MetadataIndex index(settings);
        ASSERT_TRUE(index.updateNow());
        EXPECT_EQ(relative(index.query(QStringLiteral("kMDItemFSName == \"*.txt\"")).paths),
                  (QStringList{"keep/a.txt", QFile::decodeName("keep/caf\xe9.txt"), "nested/e.txt",
                               "work/src/d.txt"}));
        EXPECT_EQ(index.query(QStringLiteral("kMDItemFSName == \"loop\"")).paths.size(), 1u);
    }
    // The temporary home cannot remove a name Qt cannot spell.
    ASSERT_EQ(unlink(rawName.constData()), 0);
    // A root taken out of the settings leaves the index at the next start.
    settings.roots = {m_home.filePath(QStringLiteral("work"))};
    MetadataIndex index(settings);
    ASSERT_TRUE(index.updateNow());
    EXPECT_EQ(relative(index.query(QStringLiteral("kMDItemFSName == \"*.txt\"")).paths),
              QStringList{"work/src/d.txt"});
}
