#include "common/DropboxHome.h"
#include "handlers/ItemInfoHandler.h"
#include "handlers/vd_FileCompareCache.h"
#include "utils/vd_SimpleUtils.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QThreadPool>

#include <gtest/gtest.h>

namespace {

QString lines(const QJsonArray &info)
{
    QStringList out;
    for (const QJsonValue &line : info)
        out << line[QStringLiteral("name")].toString() + u'=' + line[QStringLiteral("value")].toString();
    return out.join(u'|');
}

} // namespace

TEST(ItemInfo, LinesForFilesFoldersAndCutOffWalks)
{
    TempHome home;
    EXPECT_EQ(lines(ItemInfoHandler::infos(home.writeFile(QStringLiteral("f.bin"), QByteArray(1234, 'x')))),
              QStringLiteral("File=f.bin|Size=1 KB"));
    QDir(home.path()).mkpath(QStringLiteral("empty"));
    EXPECT_EQ(lines(ItemInfoHandler::infos(home.filePath(QStringLiteral("empty")))),
              QStringLiteral("File=empty|Size=0|Number of Files=1"));
    home.writeFile(QStringLiteral("two/a"), QByteArray(600, 'a'));
    home.writeFile(QStringLiteral("two/.b"), QByteArray(600, 'b'));
    EXPECT_EQ(lines(ItemInfoHandler::infos(home.filePath(QStringLiteral("two")))),
              QStringLiteral("File=two|Size=1 KB|Number of Files=3"));
    EXPECT_EQ(lines(ItemInfoHandler::infos(home.filePath(QStringLiteral("missing")))),
              QStringLiteral("File=missing|Size=0"));
    // A trailing "/" names the same folder; a link to a folder counts what the folder holds.
    EXPECT_EQ(lines(ItemInfoHandler::infos(home.filePath(QStringLiteral("two//")))),
              QStringLiteral("File=two|Size=1 KB|Number of Files=3"));
    QFile::link(home.filePath(QStringLiteral("two")), home.filePath(QStringLiteral("alias")));
    EXPECT_EQ(lines(ItemInfoHandler::infos(home.filePath(QStringLiteral("alias")))),
              QStringLiteral("File=alias|Size=1 KB|Number of Files=3"));
    EXPECT_TRUE(lines(ItemInfoHandler::infos(QStringLiteral("/"))).startsWith(QStringLiteral("File=/|")));

    QJsonObject request{{QStringLiteral("path"), QString()}};
    ItemInfoHandler::handleItemInfoRequest(request);
    EXPECT_FALSE(request.contains(QStringLiteral("info")));

    // A walk that runs out of time gives lower bounds: the item it stopped at adds its size, not its count.
    for (int i = 0; i < 50; ++i)
        home.writeFile(QStringLiteral("many/%1").arg(i), QByteArray(10, 'm'));
    qint64 count = 0;
    bool maxReached = false;
    const quint64 size =
        vd_SimpleUtils::sizeOfItem(home.filePath(QStringLiteral("many")), 1e-9, &count, &maxReached);
    EXPECT_TRUE(maxReached);
    EXPECT_EQ(count, 1);
    EXPECT_LE(size, 10u);
    EXPECT_EQ(vd_SimpleUtils::sizeOfItem(home.filePath(QStringLiteral("many")), 0, &count, &maxReached),
              500u);
    EXPECT_EQ(count, 51);
    EXPECT_FALSE(maxReached);
    EXPECT_EQ(vd_SimpleUtils::sizeOfItem(QStringLiteral("~/many/1"), 2, nullptr, nullptr), 10u);
}

TEST(MatchedFilesCache, FindsIdenticalUploadsByNameSizeAndContent)
{
    DropboxHome home;
    const QString root = home.root();
    home.writeFile(QStringLiteral("Dropbox/Apps/vandrel/uploads/2014/3/report.pdf"), "same bytes");
    home.writeFile(QStringLiteral("Dropbox/Apps/vandrel/uploads/2014/3/other.pdf"), "diff bytes");
    home.writeFile(QStringLiteral("Dropbox/Apps/vandrel/uploads/2014/3/Album/1.jpg"), "one");
    const QString report = home.writeFile(QStringLiteral("Documents/report.pdf"), "same bytes");
    const QString other = home.writeFile(QStringLiteral("Documents/other.pdf"), "DIFF BYTES");
    const QString renamed = home.writeFile(QStringLiteral("Documents/renamed.pdf"), "same bytes");
    home.writeFile(QStringLiteral("Pictures/Album/1.jpg"), "one");

    const QDateTime start = QDateTime::currentDateTimeUtc();
    vd_FileCompareCache::refreshMatchedFilesCache(false, start);
    QThreadPool::globalInstance()->waitForDone();
    const auto cache = vd_FileCompareCache::getCompareCache(root);
    EXPECT_EQ(cache->matchingPath(report), root + QStringLiteral("/uploads/2014/3/report.pdf"));
    EXPECT_EQ(cache->matchingPath(other), std::nullopt);   // same key, other contents
    EXPECT_EQ(cache->matchingPath(renamed), std::nullopt); // the key holds the name
    EXPECT_EQ(cache->matchingPath(home.filePath(QStringLiteral("Pictures/Album"))),
              root + QStringLiteral("/uploads/2014/3/Album"));
    EXPECT_EQ(vd_FileCompareCache::getCompareCache(root + u'/')->matchingPath(report), std::nullopt);

    // Within a minute of the last refresh nothing is rebuilt; after it, new uploads are seen.
    const QString late = home.writeFile(QStringLiteral("Documents/late.txt"), "late");
    home.writeFile(QStringLiteral("Dropbox/Apps/vandrel/uploads/late.txt"), "late");
    vd_FileCompareCache::refreshMatchedFilesCache(false, start.addSecs(30));
    QThreadPool::globalInstance()->waitForDone();
    EXPECT_EQ(cache->matchingPath(late), std::nullopt);
    vd_FileCompareCache::refreshMatchedFilesCache(false, start.addSecs(61));
    QThreadPool::globalInstance()->waitForDone();
    EXPECT_EQ(cache->matchingPath(late), root + QStringLiteral("/uploads/late.txt"));
}
