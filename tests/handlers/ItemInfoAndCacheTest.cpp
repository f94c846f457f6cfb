#include "common/DropboxHome.h"
#include "handlers/ItemInfoHandler.h"
#include "handlers/vd_FileCompareCache.h"
#include "utils/vd_SimpleUtils.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QThreadPool>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

TEST(ItemInfo, LinesForFilesFoldersCutOffWalksAndSizeBands)
{
    TempHome home;
    home.writeFile(u"f.bin"_s, QByteArray(1234, 'x'));
    QDir(home.path()).mkpath(u"empty"_s);
    home.writeFile(u"two/a"_s, QByteArray(600, 'a'));
    home.writeFile(u"two/.b"_s, QByteArray(600, 'b'));
    QFile::link(home.filePath(u"two"_s), home.filePath(u"alias"_s));
    // A folder counts itself and hidden files, with or without a trailing "/"; so does a link to one.
    for (const auto &[path, expected] : {std::pair{"f.bin", "File=f.bin|Size=1 KB"},
                                         {"empty", "File=empty|Size=0|Number of Files=1"},
                                         {"two//", "File=two|Size=1 KB|Number of Files=3"},
                                         {"alias", "File=alias|Size=1 KB|Number of Files=3"},
                                         {"missing", "File=missing|Size=0"}}) {
        QStringList lines;
        for (const QJsonValue &line : ItemInfoHandler::infos(home.filePath(QLatin1String(path))))
            lines << line[u"name"_s].toString() + u'=' + line[u"value"_s].toString();
        EXPECT_EQ(lines.join(u'|'), QLatin1String(expected));
    }
    EXPECT_EQ(ItemInfoHandler::infos(u"/"_s).first()[u"value"_s].toString(), u"/"_s);

    QJsonObject request{{u"path"_s, QString()}};
    ItemInfoHandler::handleItemInfoRequest(request);
    EXPECT_FALSE(request.contains(u"info"_s));

    // A walk that runs out of time gives lower bounds: the item it stopped at adds its size, not its count.
    for (int i = 0; i < 50; ++i)
        home.writeFile(u"many/%1"_s.arg(i), QByteArray(10, 'm'));
    qint64 count = 0;
    bool maxReached = false;
    EXPECT_LE(vd_SimpleUtils::sizeOfItem(home.filePath(u"many"_s), 1e-9, &count, &maxReached), 10u);
    EXPECT_TRUE(maxReached);
    EXPECT_EQ(count, 1);
    EXPECT_EQ(vd_SimpleUtils::sizeOfItem(u"~/many/1"_s, 2, nullptr, nullptr), 10u);

    for (const auto &[bytes, text] : {std::pair{0.0, "0"},
                                      {99.0, "0.0 KB"},
                                      {499.0, "0.4 KB"},
                                      {500.0, "1 KB"},
                                      {999499.0, "999 KB"},
                                      {1e6, "1000 KB"},
                                      {1000001.0, "1.0 MB"},
                                      {1e7, "10.0 MB"},
                                      {10000001.0, "10 MB"},
                                      {2.46e7, "25 MB"},
                                      {1e9, "1000 MB"},
                                      {1000000001.0, "1.0 GB"}})

        EXPECT_EQ(vd_SimpleUtils::stringFromByteCount(bytes), QLatin1String(text)) << bytes;
}

TEST(MatchedFilesCache, FindsIdenticalUploadsByNameSizeAndContent)
{
    DropboxHome home;
    const QString root = home.root();
    home.writeFile(u"Dropbox/Apps/vandrel/uploads/2014/3/report.pdf"_s, "same bytes");
    home.writeFile(u"Dropbox/Apps/vandrel/uploads/2014/3/other.pdf"_s, "diff bytes");
    home.writeFile(u"Dropbox/Apps/vandrel/uploads/2014/3/Album/1.jpg"_s, "one");
    const QString report = home.writeFile(u"Documents/report.pdf"_s, "same bytes");
    const QString other = home.writeFile(u"Documents/other.pdf"_s, "DIFF BYTES");
    const QString renamed = home.writeFile(u"Documents/renamed.pdf"_s, "same bytes");
    home.writeFile(u"Pictures/Album/1.jpg"_s, "one");

    const QDateTime start = QDateTime::currentDateTimeUtc();
    const auto refresh = [](const QDateTime &now) {
        vd_FileCompareCache::refreshMatchedFilesCache(false, now);
        QThreadPool::globalInstance()->waitForDone();
    };
    refresh(start);
    const auto cache = vd_FileCompareCache::getCompareCache(root);
    EXPECT_EQ(cache->matchingPath(report), root + u"/uploads/2014/3/report.pdf"_s);
    EXPECT_EQ(cache->matchingPath(other), std::nullopt);   // same key, other contents
    EXPECT_EQ(cache->matchingPath(renamed), std::nullopt); // the key holds the name
    EXPECT_EQ(cache->matchingPath(home.filePath(u"Pictures/Album"_s)), root + u"/uploads/2014/3/Album"_s);
    EXPECT_EQ(vd_FileCompareCache::getCompareCache(root + u'/')->matchingPath(report), std::nullopt);

    // Within a minute of the last refresh nothing is rebuilt; after it, new uploads are seen.
    const QString late = home.writeFile(u"Documents/late.txt"_s, "late");
    home.writeFile(u"Dropbox/Apps/vandrel/uploads/late.txt"_s, "late");
    refresh(start.addSecs(30));
    EXPECT_EQ(cache->matchingPath(late), std::nullopt);
    refresh(start.addSecs(61));
    EXPECT_EQ(cache->matchingPath(late), root + u"/uploads/late.txt"_s);
}
