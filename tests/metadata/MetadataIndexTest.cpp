#include "metadata/MetadataIndex.h"

#include "common/TempHome.h"
#include "common/TestPdf.h"
#include "metadata/IndexStore.h"
#include "platform/Volumes.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QThread>

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/xattr.h>
#include <vips/vips.h>

namespace {

// A one-page PDF with the given text and document information, built with correct cross-references.
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

    QStringList names(const MetadataIndex &index, const QString &query, const QString &scope = {}) const
    {
        QStringList result;
        for (const QString &path : index.query(query, scope).paths)
            result.append(path.mid(m_home.path().size() + 1));
        return result;
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

    TempHome m_home;
};

} // namespace

TEST_F(MetadataIndexTest, CrawlsExtractsAndAnswersEveryKindOfQuery)
{
    m_home.writeFile(QStringLiteral("Documents/Résumé.pdf"), makePdf("quarterly invoice zebra"));
    m_home.writeFile(QStringLiteral("Documents/notes.txt"), "Meeting about the Quarterly budget.\n");
    m_home.writeFile(QStringLiteral("Documents/latin1.txt"), QByteArray("caf\xe9 cr\xe8me br\xfbl\xe9"));
    m_home.writeFile(QStringLiteral("Mail/1.eml"),
                     "From: Bob <b@x>\nSubject: =?UTF-8?B?w4l0w6kgcGxhbnM=?=\n\n"
                     "Let us go hiking.\n");
    m_home.writeFile(QStringLiteral("Music/zürich.txt"), "x");
    m_home.writeFile(QStringLiteral("Code/node_modules/skip.txt"), "quarterly");
    m_home.writeFile(QStringLiteral(".hidden/secret.txt"), "quarterly");
    m_home.writeFile(QStringLiteral("Pictures/photo.jpg"), "not really a jpeg");
    m_home.writeFile(QStringLiteral("Pictures/.thumbnail.png"), "x");
    m_home.writeFile(QStringLiteral("Pictures/q\"uote.txt"), "x");
    m_home.writeFile(QStringLiteral("Work/Caches/plan.txt"), "x");
    makePng(m_home.filePath(QStringLiteral("Pictures/drawing.png")), 40, 30);
    const QString tagged = m_home.writeFile(QStringLiteral("Documents/tagged.txt"), "plain");
    setxattr(QFile::encodeName(tagged).constData(), "user.xdg.tags", "Red,Blue", 8, 0);

    MetadataIndex index(config());
    ASSERT_TRUE(index.updateNow());

    EXPECT_EQ(names(index, nameQuery(QStringLiteral("resume"))), QStringList{"Documents/Résumé.pdf"});
    EXPECT_EQ(names(index, nameQuery(QStringLiteral("ZURICH"))), QStringList{"Music/zürich.txt"});
    EXPECT_TRUE(names(index, nameQuery(QStringLiteral("skip"))).isEmpty());
    EXPECT_TRUE(names(index, nameQuery(QStringLiteral("secret"))).isEmpty());
    EXPECT_TRUE(
        names(index, nameQuery(QStringLiteral("thumbnail"))).isEmpty()); // a hidden file is a system file
    // A folder merely named Caches is the user's own, and so is what it holds.
    EXPECT_EQ(names(index, nameQuery(QStringLiteral("caches"))), QStringList{"Work/Caches"});
    EXPECT_EQ(names(index, nameQuery(QStringLiteral("plan.t"))), QStringList{"Work/Caches/plan.txt"});
    QStringList images = names(index, QStringLiteral("kMDItemContentTypeTree == \"public.image\""));
    images.sort();
    EXPECT_EQ(images, (QStringList{"Pictures/.thumbnail.png", "Pictures/drawing.png", "Pictures/photo.jpg"}));

    // Word prefixes over names, text, PDF text and metadata, mail subjects and tags.
    QStringList quarterly = names(index, anyQuery(QStringLiteral("quart")));
    quarterly.sort();
    EXPECT_EQ(quarterly, (QStringList{"Documents/Résumé.pdf", "Documents/notes.txt"}));
    EXPECT_EQ(names(index, anyQuery(QStringLiteral("zebra"))), QStringList{"Documents/Résumé.pdf"});
    EXPECT_EQ(names(index, anyQuery(QStringLiteral("audit"))), QStringList{"Documents/Résumé.pdf"});
    EXPECT_EQ(names(index, anyQuery(QStringLiteral("creme"))), QStringList{"Documents/latin1.txt"});
    EXPECT_EQ(names(index, anyQuery(QStringLiteral("ete"))), QStringList{"Mail/1.eml"});
    EXPECT_EQ(names(index, anyQuery(QStringLiteral("red"))), QStringList{"Documents/tagged.txt"});
    EXPECT_TRUE(names(index, anyQuery(QStringLiteral("uarterly"))).isEmpty()); // words begin, never contain
    EXPECT_EQ(names(index, QStringLiteral("kMDItemTitle == \"tax*\"c")), QStringList{"Documents/Résumé.pdf"});

    // A name holding a double quote makes a malformed exact-name query: a clean failure, no loose match.
    const MetadataQueryResult quoted = index.query(QStringLiteral("( kMDItemFSName == \"q\"uote.txt\" )"));
    EXPECT_FALSE(quoted.ok);
    EXPECT_TRUE(quoted.paths.isEmpty());
    EXPECT_FALSE(
        index.query(QStringLiteral("kMDItemFSName == \"x\""), {}, QStringLiteral("kMDItemFSSize")).ok);

    const auto pdf = index.item(m_home.filePath(QStringLiteral("Documents/Résumé.pdf")));
    ASSERT_TRUE(pdf);
    EXPECT_EQ(pdf->value(QStringLiteral("kMDItemNumberOfPages")).toString(), QStringLiteral("1"));
    EXPECT_EQ(pdf->value(QStringLiteral("kMDItemPageWidth")).toString(), QStringLiteral("612"));
    EXPECT_EQ(pdf->value(QStringLiteral("kMDItemKeywords")).toStringList(),
              (QStringList{"finance", "audit"}));
    EXPECT_EQ(pdf->value(QStringLiteral("kMDItemContentType")).toString(), QStringLiteral("com.adobe.pdf"));
    const auto png = index.item(m_home.filePath(QStringLiteral("Pictures/drawing.png")));
    ASSERT_TRUE(png);
    EXPECT_EQ(png->value(QStringLiteral("kMDItemPixelWidth")).toString(), QStringLiteral("40"));
    EXPECT_EQ(png->value(QStringLiteral("kMDItemPixelHeight")).toString(), QStringLiteral("30"));
    const auto mail = index.item(m_home.filePath(QStringLiteral("Mail/1.eml")));
    ASSERT_TRUE(mail);
    EXPECT_EQ(mail->value(QStringLiteral("kMDItemDisplayName")).toString(), QStringLiteral("Été plans"));
    EXPECT_EQ(index.item(tagged)->value(QStringLiteral("kMDItemOMUserTags")).toStringList(),
              (QStringList{"Red", "Blue"}));
    EXPECT_FALSE(index.item(m_home.filePath(QStringLiteral(".hidden/secret.txt"))));
    EXPECT_FALSE(index.item(QStringLiteral("/nonexistent/file")));
    const MetadataIndexStatus status = index.status();
    EXPECT_EQ(status.files, 11); // node_modules and hidden folders left out
    // The first indexing's progress tells what was read, and that nothing waits any more.
    EXPECT_EQ(status.filesRead, status.files);
    EXPECT_EQ(status.foldersRead, status.folders);
    EXPECT_EQ(status.foldersWaiting, 0);
    EXPECT_EQ(status.contentsWaiting, 0);
    EXPECT_GE(status.contentsRead, 8);
    EXPECT_FALSE(status.crawling);

    // A scope outside the indexed roots is walked live.
    const QStringList live =
        index.query(nameQuery(QStringLiteral("secret")), m_home.filePath(QStringLiteral(".hidden"))).paths;
    EXPECT_EQ(live, QStringList{m_home.filePath(QStringLiteral(".hidden/secret.txt"))});
}

TEST_F(MetadataIndexTest, WatcherShowsChangesWithinTwoSeconds)
{
    m_home.writeFile(QStringLiteral("a/old name.txt"), "one");
    m_home.writeFile(QStringLiteral("a/sub/deep.txt"), "two");
    QDir(m_home.path()).mkpath(QStringLiteral("b"));
    MetadataIndex index(config());
    index.start();
    ASSERT_TRUE(index.waitUntilIdle(10000));

    m_home.writeFile(QStringLiteral("a/created.txt"), "new");
    EXPECT_TRUE(eventually(index, nameQuery(QStringLiteral("created")), {"a/created.txt"}));

    QDir home(m_home.path());
    ASSERT_TRUE(home.rename(QStringLiteral("a/old name.txt"), QStringLiteral("a/new name.txt")));
    EXPECT_TRUE(eventually(index, nameQuery(QStringLiteral("name")), {"a/new name.txt"}));

    ASSERT_TRUE(home.rename(QStringLiteral("a/sub"), QStringLiteral("b/moved")));
    EXPECT_TRUE(eventually(index, nameQuery(QStringLiteral("deep")), {"b/moved/deep.txt"}));

    ASSERT_TRUE(QFile::remove(m_home.filePath(QStringLiteral("a/created.txt"))));
    EXPECT_TRUE(eventually(index, nameQuery(QStringLiteral("created")), {}));

    m_home.writeFile(QStringLiteral("b/moved/deep.txt"), "now about flamingos");
    EXPECT_TRUE(eventually(index, anyQuery(QStringLiteral("flaming")), {"b/moved/deep.txt"}));

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

TEST_F(MetadataIndexTest, DamagedOrNewerStoreIsRebuilt)
{
    m_home.writeFile(QStringLiteral("doc.txt"), "x");
    const QString store = config().storePath;
    m_home.writeFile(QStringLiteral(".cache/vandrel/index.db"), QByteArray(8192, 'z'));
    {
        MetadataIndex index(config());
        ASSERT_TRUE(index.updateNow());
        EXPECT_EQ(names(index, nameQuery(QStringLiteral("doc"))), QStringList{"doc.txt"});
    }
    {
        auto opened = IndexStore::open(store);
        ASSERT_TRUE(opened);
        ASSERT_TRUE(opened->begin());
        opened->setMeta(QStringLiteral("x"), QStringLiteral("y"));
        ASSERT_TRUE(opened->commit());
    }
    sqlite3 *db = nullptr;
    ASSERT_EQ(sqlite3_open(QFile::encodeName(store).constData(), &db), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(db, "PRAGMA user_version=99", nullptr, nullptr, nullptr), SQLITE_OK);
    sqlite3_close(db);
    auto reopened = IndexStore::open(store);
    ASSERT_TRUE(reopened);
    EXPECT_TRUE(reopened->meta(QStringLiteral("x")).isEmpty());
    EXPECT_TRUE(reopened->loadFiles().empty());
}

TEST(Volumes, OnlyRealLocalFileSystemsAtUserMountPoints)
{
    EXPECT_TRUE(Volumes::isLocalVolume(QStringLiteral("/"), "ext4", "/dev/sda2"));
    EXPECT_TRUE(Volumes::isLocalVolume(QStringLiteral("/media/ann/USB"), "vfat", "/dev/sdb1"));
    EXPECT_TRUE(Volumes::isLocalVolume(QStringLiteral("/run/media/ann/Disk"), "ntfs3", "/dev/sdc1"));
    EXPECT_TRUE(Volumes::isLocalVolume(QStringLiteral("/mnt/data"), "btrfs", "/dev/nvme0n1p3"));
    EXPECT_FALSE(Volumes::isLocalVolume(QStringLiteral("/boot"), "ext4", "/dev/sda1"));
    EXPECT_FALSE(Volumes::isLocalVolume(QStringLiteral("/boot/efi"), "vfat", "/dev/sda1"));
    EXPECT_FALSE(Volumes::isLocalVolume(QStringLiteral("/snap/core/1"), "squashfs", "/dev/loop3"));
    EXPECT_FALSE(Volumes::isLocalVolume(QStringLiteral("/media/ann/iso"), "ext4", "/dev/loop0"));
    EXPECT_FALSE(Volumes::isLocalVolume(QStringLiteral("/mnt/share"), "nfs4", "server:/export"));
    EXPECT_FALSE(Volumes::isLocalVolume(QStringLiteral("/proc"), "proc", "proc"));
    EXPECT_FALSE(Volumes::isLocalVolume(QStringLiteral("/mnt/"), "ext4", "/dev/sdb1"));
    EXPECT_FALSE(Volumes::isLocalVolume(QStringLiteral("/"), "overlay", "overlay"));
    EXPECT_TRUE(Volumes::isLocalVolume(QStringLiteral("/"), "zfs", "rpool/ROOT/debian"));

    // The index covers the user's own volumes only: never "/" nor another system mount.
    EXPECT_EQ(MetadataConfig::userVolumes({QStringLiteral("/"), QStringLiteral("/media/ann/USB"),
                                           QStringLiteral("/home"), QStringLiteral("/run/media/ann/Disk/"),
                                           QStringLiteral("/mediaX/a"), QStringLiteral("/mnt"),
                                           QStringLiteral("/mnt/data"), QStringLiteral("/boot/efi")}),
              (QStringList{"/media/ann/USB", "/run/media/ann/Disk", "/mnt/data"}));
    const MetadataConfig defaults = MetadataConfig::defaults();
    ASSERT_FALSE(defaults.roots.isEmpty());
    EXPECT_EQ(defaults.roots.first(), QDir::homePath());
    EXPECT_FALSE(defaults.roots.contains(QStringLiteral("/")));
}

// A file written while the first crawl of a large tree runs is found by name before the crawl ends, not
// after it.
TEST_F(MetadataIndexTest, ChangeDuringFirstCrawlGoesBeforeItsBacklog)
{
    QDir home(m_home.path());
    for (int folder = 0; folder < 500; ++folder) {
        const QString path = QStringLiteral("tree/%1").arg(folder);
        ASSERT_TRUE(home.mkpath(path));
        for (int file = 0; file < 100; ++file) {
            QFile f(home.filePath(QStringLiteral("%1/file %2.txt").arg(path).arg(file)));
            ASSERT_TRUE(f.open(QIODevice::WriteOnly));
        }
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
