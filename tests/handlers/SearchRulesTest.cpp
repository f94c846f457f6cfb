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

using namespace Qt::StringLiterals;

namespace {

QJsonArray records(int count)
{
    QJsonArray list;
    for (int i = 0; i < count; ++i)
        list.append(QJsonObject{{u"path"_s, u"/p/%1"_s.arg(i)}});
    return list;
}

QStringList displays(const QJsonArray &list)
{
    QStringList names;
    for (const QJsonValue &record : list)
        names << record[u"display"_s].toString();
    return names;
}

// The terms the query makes of typed name text, in order.
QStringList terms(const QString &typed)
{
    static const QRegularExpression clause(uR"(kMDItemDisplayName == "\*?(.*?)\*"cd)"_s);
    QStringList found;
    for (const QRegularExpressionMatch &match :
         clause.globalMatch(SpotlightSearch::currentQueryString({}, typed, {})))
        found << match.captured(1);
    return found;
}

} // namespace

TEST(SearchRules, TermsPhrasesFieldsAndQueryTextInItsOrder)
{
    EXPECT_EQ(terms(u"tax  2013"_s), QStringList({u"tax"_s, u"2013"_s}));
    EXPECT_EQ(terms(u"\"annual report\" 2014"_s), QStringList({u"annual report"_s, u"2014"_s}));
    EXPECT_EQ(terms(u"author: smith"_s), QStringList({u"author:smith"_s}));
    EXPECT_EQ(terms(u"\"glued\"lost kept"_s), QStringList({u"glued"_s, u"kept"_s}));
    EXPECT_EQ(terms(u"a \"unclosed phrase here"_s), QStringList({u"a"_s, u"unclosed phrase here"_s}));
    EXPECT_EQ(terms(u"end \""_s), QStringList({u"end"_s, QString()}));
    EXPECT_EQ(terms(u"last:"_s), QStringList({u"last:"_s}));

    EXPECT_EQ(SpotlightSearch::currentQueryString(u"com.adobe.pdf"_s, u"re"_s, u"tax 2013"_s),
              u"( kMDItemDisplayName == \"*re*\"cd ) && ( kMDItemContentTypeTree == \"com.adobe.pdf\" ) && "
              "( * == \"tax*\"cdw || kMDItemTextContent == \"tax*\"cdw ) && "
              "( * == \"2013*\"cdw || kMDItemTextContent == \"2013*\"cdw ) && "
              "(kMDItemSupportFileType != MDSystemFile)"_s);
    EXPECT_EQ(SpotlightSearch::currentQueryString(u"kMDItemContentType == 'public.folder'"_s, u"a"_s, u"x"_s),
              u"( kMDItemDisplayName == \"a*\"cd ) && ( kMDItemContentType == 'public.folder' ) && "
              "( * == \"x\"cdw ) && (kMDItemSupportFileType != MDSystemFile)"_s);
}

TEST(SearchRules, PagingKeepsItsQuirksFinderOrderAndUploadRule)
{
    QJsonObject result;
    EXPECT_EQ(ItemRecords::pageOf(records(72), {{u"result_page"_s, 3}}, result).size(), 72);
    EXPECT_EQ(result.value(u"page_size"_s).toInt(), 72);
    EXPECT_EQ(result.value(u"num_pages"_s).toInt(), 1);

    const QJsonArray second = ItemRecords::pageOf(records(73), {{u"result_page"_s, 1}}, result);
    EXPECT_EQ(second.size(), 33);
    EXPECT_EQ(second.first()[u"path"_s].toString(), u"/p/40"_s);
    EXPECT_EQ(result.value(u"page_size"_s).toInt(), 40);
    EXPECT_EQ(result.value(u"num_pages"_s).toInt(), 2);

    EXPECT_TRUE(ItemRecords::pageOf(records(80), {{u"result_page"_s, 2}}, result).isEmpty());
    EXPECT_EQ(result.value(u"num_pages"_s).toInt(), 3);
    EXPECT_EQ(result.value(u"total_item_count"_s).toInt(), 80);
    EXPECT_TRUE(ItemRecords::pageOf(records(80), {{u"result_page"_s, -1}}, result).isEmpty());
    EXPECT_EQ(ItemRecords::pageOf(records(80), {}, result).size(), 40);
    // A page so far out that its offset would overflow is simply empty.
    EXPECT_TRUE(ItemRecords::pageOf(records(80), {{u"result_page"_s, 4e17}}, result).isEmpty());

    QJsonArray list;
    for (const char *name : {"file 10", "File 9", "file 9", "\xc3\xa9t\xc3\xa9", "apple", "Zebra", "etc"})
        list.append(QJsonObject{{u"display"_s, QString::fromUtf8(name)}});
    ItemRecords::finderSortWithLocale(list);
    EXPECT_EQ(displays(list), QStringList({u"apple"_s, u"etc"_s, u"\u00e9t\u00e9"_s, u"file 9"_s, u"File 9"_s,
                                           u"file 10"_s, u"Zebra"_s}));

    // Offered for copying to the StorageRoot: not the home, its standard folders, libraries or short paths.
    TempHome home;
    const QString h = home.path();
    for (const char *folder : {"Documents/Documents", "Work/Library", "Pictures/iPhoto Library"})
        QDir(h).mkpath(QString::fromUtf8(folder));
    for (const auto &[path, offered] : {std::pair{h, false},
                                        {h + u"/Documents"_s, false},
                                        {h + u"/Documents/Documents"_s, h.count(u'/') + 3 >= 5},
                                        {h + u"/Work/Library"_s, false},
                                        {h + u"/Pictures/iPhoto Library"_s, false},
                                        {u"/tmp/abcd"_s, false},
                                        {u"/tmp/abcde"_s, true},
                                        {u"/opt/thing/System"_s, false}}) {
        QJsonArray page{QJsonObject{{u"path"_s, path}}};
        ItemRecords::polishResults(page, {});
        EXPECT_EQ(page[0][u"up_ok"_s].toBool(), offered) << path.toStdString();
    }
}

TEST(SearchRules, SearchPagesBundlesCachesAndPhotoLibraries)
{
    TempHome home;
    for (int i = 0; i < 100; ++i)
        home.writeFile(u"Many/page%1.txt"_s.arg(i), "x");
    QDir(home.path()).mkpath(u"Apps/Tool.app/Contents"_s);
    QDir(home.path()).mkpath(u"Apps/Shots.aplibrary"_s);
    home.writeFile(u"Apps/readme.app"_s, "a file, not a bundle");
    QDir(home.path()).mkpath(u"Apps/.hidden"_s);
    QFile::link(home.filePath(u"Many"_s), home.filePath(u"Apps/linked"_s));
    home.writeFile(u"Library/Caches/cachedpage.txt"_s, "x");
    const QString year = home.filePath(u"Pictures/iPhoto Library/Masters/2024"_s);
    home.writeFile(u"Pictures/iPhoto Library/Masters/2024/05/pic.jpg"_s, "x");
    MetadataIndex index({.roots = {home.path()},
                         .storePath = home.filePath(u".cache/vandrel/index.db"_s),
                         .lowPriority = false,
                         .watch = false,
                         .extract = false});
    ASSERT_TRUE(index.updateNow());
    SearchIndex::setCurrent(&index);
    const auto search = [&](QJsonObject request) {
        request.insert(u"search_dir"_s, home.path());
        SearchHandler::handleSearchRequest(request);
        return request;
    };

    // Records are built for the sent page only, yet the pages together hold every hit exactly once; the page
    // inside Library/Caches is none.
    QSet<QString> seen;
    for (int page = 0; page < 3; ++page) {
        const QJsonObject result = search({{u"name_search"_s, u"page"_s}, {u"result_page"_s, page}});
        const QJsonArray items = result[u"items"_s].toArray();
        EXPECT_EQ(items.size(), page < 2 ? 40 : 20);
        for (const QJsonValue &item : items) {
            seen.insert(item[u"path"_s].toString());
            EXPECT_GT(item[u"mod_date"_s].toDouble(), 0);
            EXPECT_EQ(item[u"size"_s].toInt(-1), 1);
            EXPECT_EQ(item[u"preview_width"_s].toInt(), 768);
        }
    }
    EXPECT_EQ(seen.size(), 100);

    // The Caches folder itself is found; what lies inside a Library's Caches is not.
    const QJsonArray caches = search({{u"name_search"_s, u"caches"_s}})[u"items"_s].toArray();
    ASSERT_EQ(caches.size(), 1);
    EXPECT_EQ(caches[0][u"path"_s].toString(), home.filePath(u"Library/Caches"_s));

    // Bundles by their name, folders only, are no sub-folders; photo libraries stay browsable.
    const QJsonObject bundle = ItemRecords::fileInfoDict(home.filePath(u"Apps/Tool.app/"_s));
    EXPECT_TRUE(bundle[u"pkg"_s].toBool() && bundle[u"dir"_s].toBool());
    EXPECT_FALSE(ItemRecords::fileInfoDict(home.filePath(u"Apps/readme.app"_s))[u"pkg"_s].toBool());
    EXPECT_EQ(ItemRecords::getSubFolders(home.filePath(u"Apps"_s)),
              QStringList{home.filePath(u"Apps/Shots.aplibrary"_s)});
    EXPECT_TRUE(ItemRecords::getSubFolders(home.filePath(u"missing"_s)).isEmpty());

    // An iPhoto year lists its months, with or without a trailing "/"; a month is the search of its pictures.
    for (const auto &[folder, listed] :
         {std::pair{year, u"05"_s}, {year + u'/', u"05"_s}, {year + u"/05"_s, u"pic.jpg"_s}})
        EXPECT_EQ(displays(Listings::doListing(folder)), QStringList{listed}) << folder.toStdString();
    SearchIndex::setCurrent(nullptr);
}
