#include "common/TempHome.h"
#include "handlers/ItemRecords.h"
#include "handlers/SearchHandler.h"

#include <QDir>
#include <QJsonArray>

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

} // namespace

TEST(SearchRules, TermsPhrasesAndFields)
{
    const auto terms = &SearchHandler::readSpaceAndQuoteDelimitedStringIntoArray;
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
        SearchHandler::currentQueryString(QStringLiteral("com.adobe.pdf"), QStringLiteral("re"),
                                          QStringLiteral("tax 2013")),
        QStringLiteral(
            "( kMDItemDisplayName == \"*re*\"cd ) && ( kMDItemContentTypeTree == \"com.adobe.pdf\" ) && "
            "( * == \"tax*\"cdw || kMDItemTextContent == \"tax*\"cdw ) && "
            "( * == \"2013*\"cdw || kMDItemTextContent == \"2013*\"cdw ) && "
            "(kMDItemSupportFileType != MDSystemFile)"));
    EXPECT_EQ(
        SearchHandler::currentQueryString(QStringLiteral("kMDItemContentType == 'public.folder'"),
                                          QStringLiteral("a"), QStringLiteral("x")),
        QStringLiteral("( kMDItemDisplayName == \"a*\"cd ) && ( kMDItemContentType == 'public.folder' ) && "
                       "( * == \"x\"cdw ) && (kMDItemSupportFileType != MDSystemFile)"));
    EXPECT_TRUE(SearchHandler::excludeSpotlightPath(QStringLiteral("/home/x/.cache/Library/Caches/a")));
    EXPECT_FALSE(SearchHandler::excludeSpotlightPath(QStringLiteral("/home/x/Library/Caches")));
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
    EXPECT_FALSE(ItemRecords::okToUpload(h));
    EXPECT_FALSE(ItemRecords::okToUpload(h + QStringLiteral("/Documents")));
    EXPECT_TRUE(ItemRecords::okToUpload(h + QStringLiteral("/Documents/Documents")) ==
                (h.split(u'/').size() + 2 >= 5));
    EXPECT_FALSE(ItemRecords::okToUpload(h + QStringLiteral("/Work/Library")));
    EXPECT_FALSE(ItemRecords::okToUpload(h + QStringLiteral("/Pictures/iPhoto Library")));
    EXPECT_FALSE(ItemRecords::okToUpload(QStringLiteral("/tmp/abcd")));
    EXPECT_TRUE(ItemRecords::okToUpload(QStringLiteral("/tmp/abcde")));
    EXPECT_FALSE(ItemRecords::okToUpload(QStringLiteral("/opt/thing/System")));
}
