#include "common/TempHome.h"
#include "handlers/SearchHandler.h"
#include "handlers/SearchIndex.h"
#include "handlers/vd_FileCompareCache.h"
#include "metadata/MetadataIndex.h"
#include "support/ls_Keychain.h"
#include "utils/vd_FileUtils.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QThread>
#include <QThreadPool>

#include <gtest/gtest.h>

namespace {

// A temporary home with a Dropbox layout and a running index over it, as the agent has.
class SearchHome : public ::testing::Test
{
protected:
    void SetUp() override
    {
        qputenv("VANDREL_KEYCHAIN", "file");
        home.writeFile(QStringLiteral("Dropbox/Apps/vandrel/data.vdldata/sessions_are_here.json"), "{}");
        root = home.filePath(QStringLiteral("Dropbox/Apps/vandrel"));
        MetadataConfig config;
        config.roots = {home.path()};
        config.storePath = home.filePath(QStringLiteral(".cache/vandrel/index.db"));
        config.idlePriority = false;
        index = std::make_unique<MetadataIndex>(config);
        index->start();
        index->waitUntilIdle(10000);
        SearchIndex::setCurrent(index.get());
    }
    void TearDown() override
    {
        SearchIndex::setCurrent(nullptr);
        index->stop();
    }

    QJsonObject search(QJsonObject request) const
    {
        request.insert(QStringLiteral("vandrel_folder"), root);
        SearchHandler::handleSearchRequest(request);
        return request;
    }

    // Searches until the result names the wanted file, for at most two seconds (the index is watching).
    QJsonObject searchUntilFound(const QJsonObject &request, const QString &wanted) const
    {
        QElapsedTimer timer;
        timer.start();
        QJsonObject result;
        while (timer.elapsed() < 2000) {
            result = search(request);
            if (paths(result).contains(wanted))
                break;
            QThread::msleep(50);
        }
        return result;
    }

    static QStringList paths(const QJsonObject &result)
    {
        QStringList list;
        for (const QJsonValue &item : result.value(QStringLiteral("items")).toArray())
            list << item[QStringLiteral("path")].toString();
        return list;
    }

    TempHome home;
    QString root;
    std::unique_ptr<MetadataIndex> index;
};

} // namespace

TEST_F(SearchHome, ComputerRootsAndFolderListings)
{
    ls_Keychain::setString(QStringLiteral("pw"), vd_FileUtils::keyForComputerPassword());
    const QJsonObject computer = search({{QStringLiteral("search_dir"), QStringLiteral("root_folders")}});
    const QJsonObject item = computer.value(QStringLiteral("items")).toArray().first().toObject();
    EXPECT_EQ(item.value(QStringLiteral("path")).toString(), QString());
    EXPECT_EQ(item.value(QStringLiteral("pword_required")), QJsonValue(true));
    EXPECT_EQ(computer.value(QStringLiteral("platform")).toString(), QStringLiteral("osx"));

    const QStringList roots = paths(search({{QStringLiteral("search_dir"), QString()}}));
    ASSERT_GE(roots.size(), 3);
    EXPECT_EQ(roots.first(), home.path());
    EXPECT_TRUE(roots.contains(home.filePath(QStringLiteral("Dropbox"))));
    EXPECT_TRUE(roots.contains(QStringLiteral("/")));

    for (const char *name : {"file 10", "file 9", ".hidden", "\xc3\xa9t\xc3\xa9.txt", "apple.txt"})
        home.writeFile(QStringLiteral("Folder/") + QString::fromUtf8(name), "x");
    QDir(home.path()).mkpath(QStringLiteral("Folder/Sub"));
    const QJsonObject listing =
        search({{QStringLiteral("search_dir"), home.filePath(QStringLiteral("Folder"))}});
    QStringList names;
    for (const QString &path : paths(listing))
        names << path.section(u'/', -1);
    EXPECT_EQ(names,
              QStringList({QStringLiteral("apple.txt"), QStringLiteral("\u00e9t\u00e9.txt"),
                           QStringLiteral("file 9"), QStringLiteral("file 10"), QStringLiteral("Sub")}));
    EXPECT_EQ(listing.value(QStringLiteral("sub_folders")).toArray(),
              QJsonArray({home.filePath(QStringLiteral("Folder/Sub"))}));
    const QJsonObject first = listing.value(QStringLiteral("items")).toArray().first().toObject();
    for (const char *key : {"path", "mod_date", "dir", "size", "pkg", "display", "up_ok", "extra_info",
                            "preview_width", "preview_height"})
        EXPECT_TRUE(first.contains(QLatin1String(key))) << key;

    for (int i = 0; i < 80; ++i)
        home.writeFile(QStringLiteral("Many/f%1.txt").arg(i, 2, 10, QLatin1Char('0')), "m");
    const QJsonObject page = search({{QStringLiteral("search_dir"), home.filePath(QStringLiteral("Many"))},
                                     {QStringLiteral("result_page"), 1}});
    EXPECT_EQ(paths(page).first().section(u'/', -1), QStringLiteral("f40.txt"));
    EXPECT_EQ(page.value(QStringLiteral("num_pages")).toInt(), 3);
    EXPECT_EQ(page.value(QStringLiteral("total_item_count")).toInt(), 80);
}

TEST_F(SearchHome, NameTypeAndContentSearchesSeeNewFiles)
{
    const QString report =
        home.writeFile(QStringLiteral("Documents/Quarterly Report.txt"), "the zebra crossing budget");
    const QJsonObject byName =
        searchUntilFound({{QStringLiteral("search_dir"), home.path()},
                          {QStringLiteral("name_search"), QStringLiteral("quarterly")}},
                         report);
    EXPECT_EQ(paths(byName), QStringList({report}));

    const QJsonObject byContent =
        searchUntilFound({{QStringLiteral("search_dir"), home.path()},
                          {QStringLiteral("search_string"), QStringLiteral("zebr")}},
                         report);
    EXPECT_TRUE(paths(byContent).contains(report));

    const QString folder = home.filePath(QStringLiteral("Documents/Projects"));
    QDir().mkpath(folder);
    const QJsonObject byType = searchUntilFound(
        {{QStringLiteral("search_dir"), home.path()},
         {QStringLiteral("file_type"), QStringLiteral("kMDItemContentType == 'public.folder'")}},
        folder);
    EXPECT_TRUE(paths(byType).contains(folder));
    EXPECT_FALSE(paths(byType).contains(report));

    const QJsonObject broken = search({{QStringLiteral("search_dir"), home.path()},
                                       {QStringLiteral("name_search"), QStringLiteral("a\"b")}});
    EXPECT_TRUE(paths(broken).isEmpty());
    EXPECT_EQ(broken.value(QStringLiteral("total_item_count")).toInt(), 0);

    // A file already copied into the uploads folder is offered as such.
    const QString uploaded =
        home.writeFile(QStringLiteral("Dropbox/Apps/vandrel/uploads/2014/3/Quarterly Report.txt"),
                       "the zebra crossing budget");
    // Copies made through the agent refresh the matched-files cache at once; this one came from elsewhere.
    vd_FileCompareCache::refreshMatchedFilesCache(true);
    QThreadPool::globalInstance()->waitForDone();
    const QJsonObject withMatch =
        search({{QStringLiteral("search_dir"), home.filePath(QStringLiteral("Documents"))}});
    const QJsonArray items = withMatch.value(QStringLiteral("items")).toArray();
    ASSERT_EQ(items.size(), 2);
    const QJsonObject record = items.at(1).toObject(); // "Projects", then "Quarterly Report.txt"
    ASSERT_EQ(record.value(QStringLiteral("path")).toString(), report);
    EXPECT_EQ(record.value(QStringLiteral("matching_path")).toString(), uploaded);
    EXPECT_TRUE(record.value(QStringLiteral("up_ok")).toBool());
}
