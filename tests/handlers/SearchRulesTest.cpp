#include "common/TempHome.h"
#include "handlers/ItemRecords.h"
#include "handlers/Listings.h"
#include "handlers/SearchHandler.h"
#include "handlers/SearchIndex.h"
#include "handlers/SpotlightSearch.h"
#include "metadata/MetadataIndex.h"

#include <QDir>
#include <QJsonArray>
#include <QRegularExpression>

#include <gtest/gtest.h>

namespace {

QJsonArray records(int count)
{
    QJsonArray list;
    for (int i = 0; i < count; ++i)
        list.append(QJsonObject{{QStringLiteral("path"), QStringLiteral("/p/%1").arg(i)}});
    return list;
}

QStringList displays(const QJsonArray &list)
{
    QStringList names;
    for (const QJsonValue &record : list)
        names << record[QStringLiteral("display")].toString();
    return names;
}

// The terms the query makes of typed name text, in order.
QStringList terms(const QString &typed)
{
    static const QRegularExpression clause(QStringLiteral(R"(kMDItemDisplayName == "\*?(.*?)\*"cd)"));
    QStringList found;
    for (const QRegularExpressionMatch &match :
         clause.globalMatch(SpotlightSearch::currentQueryString({}, typed, {})))
        found << match.captured(1);
    return found;
}

// Whether polishing offers the item for copying to the StorageRoot.
bool uploadable(const QString &path)
{
    QJsonArray page{QJsonObject{{QStringLiteral("path"), path}}};
    ItemRecords::polishResults(page, {});
    return page[0][QStringLiteral("up_ok")].toBool();
}

} // namespace

TEST(SearchRules, TermsPhrasesAndFields)
{
    EXPECT_EQ(terms(QStringLiteral("tax  2013")),
              QStringList({QStringLiteral("tax"), QStringLiteral("2013")}));
    EXPECT_EQ(terms(QStringLiteral("\"annual report\" 2014")),
              QStringList({QStringLiteral("annual report"), QStringLiteral("2014")}));
    EXPECT_EQ(terms(QStringLiteral("author: smith")), QStringList({QStringLiteral("author:smith")}));
    EXPECT_EQ(terms(QStringLiteral("\"glued\"lost kept")),
              QStringList({QStringLiteral("glued"), QStringLiteral("kept")}));
    EXPECT_EQ(terms(QStringLiteral("a \"unclosed phrase here")),
              QStringList({QStringLiteral("a"), QStringLiteral("unclosed phrase here")}));
    EXPECT_EQ(terms(QStringLiteral("end \"")), QStringList({QStringLiteral("end"), QString()}));
    EXPECT_EQ(terms(QStringLiteral("last:")), QStringList({QStringLiteral("last:")}));
}

TEST(SearchRules, QueryTextInItsOrder)
{
    EXPECT_EQ(
        SpotlightSearch::currentQueryString(QStringLiteral("com.adobe.pdf"), QStringLiteral("re"),
                                            QStringLiteral("tax 2013")),
        QStringLiteral(
            "( kMDItemDisplayName == \"*re*\"cd ) && ( kMDItemContentTypeTree == \"com.adobe.pdf\" ) && "
            "( * == \"tax*\"cdw || kMDItemTextContent == \"tax*\"cdw ) && "
            "( * == \"2013*\"cdw || kMDItemTextContent == \"2013*\"cdw ) && "
            "(kMDItemSupportFileType != MDSystemFile)"));
    EXPECT_EQ(
        SpotlightSearch::currentQueryString(QStringLiteral("kMDItemContentType == 'public.folder'"),
                                            QStringLiteral("a"), QStringLiteral("x")),
        QStringLiteral("( kMDItemDisplayName == \"a*\"cd ) && ( kMDItemContentType == 'public.folder' ) && "
                       "( * == \"x\"cdw ) && (kMDItemSupportFileType != MDSystemFile)"));
}

TEST(SearchRules, PagingKeepsItsQuirks)
{
    QJsonObject result;
    EXPECT_EQ(ItemRecords::pageOf(records(72), {{QStringLiteral("result_page"), 3}}, result).size(), 72);
    EXPECT_EQ(result.value(QStringLiteral("page_size")).toInt(), 72);
    EXPECT_EQ(result.value(QStringLiteral("num_pages")).toInt(), 1);

    const QJsonArray second = ItemRecords::pageOf(records(73), {{QStringLiteral("result_page"), 1}}, result);
    EXPECT_EQ(second.size(), 33);
    EXPECT_EQ(second.first()[QStringLiteral("path")].toString(), QStringLiteral("/p/40"));
    EXPECT_EQ(result.value(QStringLiteral("page_size")).toInt(), 40);
    EXPECT_EQ(result.value(QStringLiteral("num_pages")).toInt(), 2);

    EXPECT_TRUE(ItemRecords::pageOf(records(80), {{QStringLiteral("result_page"), 2}}, result).isEmpty());
    EXPECT_EQ(result.value(QStringLiteral("num_pages")).toInt(), 3);
    EXPECT_EQ(result.value(QStringLiteral("total_item_count")).toInt(), 80);
    EXPECT_TRUE(ItemRecords::pageOf(records(80), {{QStringLiteral("result_page"), -1}}, result).isEmpty());
    EXPECT_EQ(ItemRecords::pageOf(records(80), {}, result).size(), 40);
}

TEST(SearchRules, FinderOrderAndUploadRule)
{
    QJsonArray list;
    for (const char *name : {"file 10", "File 9", "file 9", "\xc3\xa9t\xc3\xa9", "apple", "Zebra", "etc"})
        list.append(QJsonObject{{QStringLiteral("display"), QString::fromUtf8(name)}});
    ItemRecords::finderSortWithLocale(list);
    EXPECT_EQ(displays(list),
              QStringList({QStringLiteral("apple"), QStringLiteral("etc"), QStringLiteral("\u00e9t\u00e9"),
                           QStringLiteral("file 9"), QStringLiteral("File 9"), QStringLiteral("file 10"),
                           QStringLiteral("Zebra")}));

    TempHome home;
    const QString h = home.path();
    for (const char *folder : {"Documents/Documents", "Work/Library", "Pictures/iPhoto Library", "Documents"})
        QDir(h).mkpath(QString::fromUtf8(folder));
    EXPECT_FALSE(uploadable(h));
    EXPECT_FALSE(uploadable(h + QStringLiteral("/Documents")));
    EXPECT_TRUE(uploadable(h + QStringLiteral("/Documents/Documents")) == (h.split(u'/').size() + 2 >= 5));
    EXPECT_FALSE(uploadable(h + QStringLiteral("/Work/Library")));
    EXPECT_FALSE(uploadable(h + QStringLiteral("/Pictures/iPhoto Library")));
    EXPECT_FALSE(uploadable(QStringLiteral("/tmp/abcd")));
    EXPECT_TRUE(uploadable(QStringLiteral("/tmp/abcde")));
    EXPECT_FALSE(uploadable(QStringLiteral("/opt/thing/System")));
}

TEST(SearchRules, SearchPagesBundlesCachesAndPhotoLibraries)
{
    TempHome home;
    for (int i = 0; i < 100; ++i)
        home.writeFile(QStringLiteral("Many/page%1.txt").arg(i), "x");
    QDir(home.path()).mkpath(QStringLiteral("Apps/Tool.app/Contents"));
    QDir(home.path()).mkpath(QStringLiteral("Apps/Shots.aplibrary"));
    home.writeFile(QStringLiteral("Apps/readme.app"), "a file, not a bundle");
    QDir(home.path()).mkpath(QStringLiteral("Apps/.hidden"));
    QFile::link(home.filePath(QStringLiteral("Many")), home.filePath(QStringLiteral("Apps/linked")));
    home.writeFile(QStringLiteral("Library/Caches/cachedpage.txt"), "x");
    const QString year = home.filePath(QStringLiteral("Pictures/iPhoto Library/Masters/2024"));
    home.writeFile(QStringLiteral("Pictures/iPhoto Library/Masters/2024/05/pic.jpg"), "x");
    MetadataConfig config;
    config.roots = {home.path()};
    config.storePath = home.filePath(QStringLiteral(".cache/vandrel/index.db"));
    config.lowPriority = false;
    config.watch = false;
    config.extract = false;
    MetadataIndex index(config);
    ASSERT_TRUE(index.updateNow());
    SearchIndex::setCurrent(&index);
    const auto search = [&](QJsonObject request) {
        request.insert(QStringLiteral("search_dir"), home.path());
        SearchHandler::handleSearchRequest(request);
        return request;
    };

    // Records are built for the sent page only, yet the pages together hold every hit exactly once.
    QSet<QString> seen;
    for (int page = 0; page < 3; ++page) {
        const QJsonObject result = search(
            {{QStringLiteral("name_search"), QStringLiteral("page")}, {QStringLiteral("result_page"), page}});
        EXPECT_EQ(result[QStringLiteral("num_pages")].toInt(), 3);
        const QJsonArray items = result[QStringLiteral("items")].toArray();
        EXPECT_EQ(items.size(), page < 2 ? 40 : 20);
        for (const QJsonValue &item : items) {
            seen.insert(item[QStringLiteral("path")].toString());
            EXPECT_TRUE(item[QStringLiteral("display")].toString().startsWith(u"page"));
            EXPECT_GT(item[QStringLiteral("mod_date")].toDouble(), 0);
            EXPECT_EQ(item[QStringLiteral("size")].toInt(-1), 1);
            EXPECT_EQ(item[QStringLiteral("preview_width")].toInt(), 768);
            EXPECT_TRUE(item[QStringLiteral("up_ok")].toBool());
        }
    }
    EXPECT_EQ(seen.size(), 100);
    EXPECT_FALSE(seen.contains(home.filePath(QStringLiteral("Library/Caches/cachedpage.txt"))));
    // A page so far out that its offset would overflow is simply empty.
    const QJsonObject far = search(
        {{QStringLiteral("name_search"), QStringLiteral("page")}, {QStringLiteral("result_page"), 4e17}});
    EXPECT_TRUE(far[QStringLiteral("items")].toArray().isEmpty());
    EXPECT_EQ(far[QStringLiteral("total_item_count")].toInt(), 100);

    // The Caches folder itself is found; what lies inside a Library's Caches is not.
    const QJsonArray caches =
        search({{QStringLiteral("name_search"), QStringLiteral("caches")}})[QStringLiteral("items")]
            .toArray();
    ASSERT_EQ(caches.size(), 1);
    EXPECT_EQ(caches[0][QStringLiteral("path")].toString(), home.filePath(QStringLiteral("Library/Caches")));

    // Bundles by their name, folders only; photo libraries stay browsable.
    const QJsonObject tool = ItemRecords::fileInfoDict(home.filePath(QStringLiteral("Apps/Tool.app")));
    EXPECT_TRUE(tool[QStringLiteral("pkg")].toBool());
    EXPECT_TRUE(tool[QStringLiteral("dir")].toBool());
    EXPECT_FALSE(ItemRecords::fileInfoDict(
                     home.filePath(QStringLiteral("Apps/Shots.aplibrary")))[QStringLiteral("pkg")]
                     .toBool());
    EXPECT_FALSE(
        ItemRecords::fileInfoDict(home.filePath(QStringLiteral("Apps/readme.app")))[QStringLiteral("pkg")]
            .toBool());
    EXPECT_TRUE(
        ItemRecords::fileInfoDict(home.filePath(QStringLiteral("Apps/Tool.app/")))[QStringLiteral("pkg")]
            .toBool());
    EXPECT_EQ(ItemRecords::getSubFolders(home.filePath(QStringLiteral("Apps"))),
              QStringList{home.filePath(QStringLiteral("Apps/Shots.aplibrary"))});
    EXPECT_TRUE(ItemRecords::getSubFolders(home.filePath(QStringLiteral("missing"))).isEmpty());

    // An iPhoto year lists its months, with or without a trailing "/"; a month is the search of its pictures.
    EXPECT_EQ(displays(Listings::doListing(year)), QStringList{QStringLiteral("05")});
    EXPECT_EQ(displays(Listings::doListing(year + u'/')), QStringList{QStringLiteral("05")});
    EXPECT_EQ(displays(Listings::doListing(year + QStringLiteral("/05"))),
              QStringList{QStringLiteral("pic.jpg")});
    SearchIndex::setCurrent(nullptr);
}
