#include "common/TempHome.h"
#include "handlers/TransferHandler.h"
#include "utils/vd_SimpleUtils.h"

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>

TEST(TransferRules, FreeNamesForMovesAndOldVersionsForCopies)
{
    TempHome home;
    const QString a = home.writeFile(QStringLiteral("in/a.txt"), "a");
    EXPECT_EQ(TransferHandler::getPathThatsUnused(home.filePath(QStringLiteral("in/b.txt"))),
              home.filePath(QStringLiteral("in/b.txt")));
    home.writeFile(QStringLiteral("in/a (1).txt"), "a1");
    EXPECT_EQ(TransferHandler::getPathThatsUnused(a), home.filePath(QStringLiteral("in/a (2).txt")));
    home.writeFile(QStringLiteral("in/Makefile"), "all:");
    EXPECT_EQ(TransferHandler::getPathThatsUnused(home.filePath(QStringLiteral("in/Makefile"))),
              home.filePath(QStringLiteral("in/Makefile (1)")));
    QDir(home.path()).mkpath(QStringLiteral("in/photos.d"));
    EXPECT_EQ(TransferHandler::getPathThatsUnused(home.filePath(QStringLiteral("in/photos.d"))),
              home.filePath(QStringLiteral("in/photos (1).d")));

    // An identical item means nothing to do; a different one is kept aside as " V<n>".
    const QString source = home.writeFile(QStringLiteral("src/Makefile"), "all: new");
    const QString destination = home.writeFile(QStringLiteral("dst/Makefile"), "all: new");
    EXPECT_FALSE(TransferHandler::handleOldVersionsAtDestination(destination, source));
    home.writeFile(QStringLiteral("dst/Makefile"), "all: old");
    EXPECT_TRUE(TransferHandler::handleOldVersionsAtDestination(destination, source));
    EXPECT_FALSE(QFile::exists(destination));
    EXPECT_TRUE(QFile::exists(home.filePath(QStringLiteral("dst/Makefile V1"))));
    home.writeFile(QStringLiteral("dst/report.pdf"), "v0");
    home.writeFile(QStringLiteral("dst/report V1.pdf"), "v1");
    EXPECT_TRUE(TransferHandler::handleOldVersionsAtDestination(
        home.filePath(QStringLiteral("dst/report.pdf")), source));
    EXPECT_TRUE(QFile::exists(home.filePath(QStringLiteral("dst/report V2.pdf"))));
    EXPECT_TRUE(
        TransferHandler::handleOldVersionsAtDestination(home.filePath(QStringLiteral("dst/none")), source));
}

TEST(TransferRules, SourceCheckRowsInOrder)
{
    const QString dropbox = QStringLiteral("/Users/x/Dropbox");
    const auto check = [&](const QString &path) {
        return TransferHandler::dropboxMoveSourceError(path, dropbox)
            .value_or(QStringLiteral("allowed"))
            .arg(path);
    };
    EXPECT_EQ(check(QStringLiteral("/Users/x/Dropbox")),
              QStringLiteral(
                  "/Users/x/Dropbox seems to be your Dropbox folder, we are not moving the whole thing!"));
    EXPECT_EQ(check(QStringLiteral("/Users/X/DROPBOX/Apps/Vandrel/uploads/2014/3/a.txt")),
              QStringLiteral("allowed"));
    EXPECT_EQ(check(QStringLiteral("/Users/x/Dropbox/Apps")),
              QStringLiteral("/Users/x/Dropbox/Apps is a required folder in Dropbox"));
    EXPECT_EQ(
        check(QStringLiteral("/Users/x/Dropbox/Apps/vandrel/uploads")),
        QStringLiteral("/Users/x/Dropbox/Apps/vandrel/uploads is a required folder for Vandrel to operate"));
    EXPECT_EQ(check(QStringLiteral("/Users/x/Dropbox/Apps/vandrel/data.vdldata")),
              QStringLiteral(
                  "/Users/x/Dropbox/Apps/vandrel/data.vdldata is a required folder for Vandrel to operate"));
    for (const char *other :
         {"/Users/x/Dropbox/Apps/vandrel", "/Users/x/Dropbox/AppsArchive", "/Users/x/Dropbox/Apps/Other/f"})
        EXPECT_TRUE(check(QString::fromUtf8(other))
                        .contains(QStringLiteral("is a folder in use by another dropbox application. "
                                                 "You can delete this by removing permission")))
            << other;
    EXPECT_EQ(check(QStringLiteral("/Users/x/Dropbox/Photos")),
              QStringLiteral("/Users/x/Dropbox/Photos is a required folder in Dropbox, try removing items "
                             "inside this folder."));
    EXPECT_EQ(check(QStringLiteral("/Users/x/Dropbox/public")),
              QStringLiteral("/Users/x/Dropbox/public is a required folder in Dropbox, try removing items "
                             "inside this folder."));
    EXPECT_EQ(check(QStringLiteral("/Users/x/Dropbox/Photos/p.jpg")), QStringLiteral("allowed"));
    EXPECT_EQ(TransferHandler::dropboxMoveSourceError(QStringLiteral("/a"), QString()).value_or(QString()),
              QStringLiteral("%1 is not in your Dropbox folder"));
}

TEST(ItemInfo, SizeBands)
{
    const std::pair<double, const char *> bands[] = {
        {0, "0"},
        {99, "0.0 KB"},
        {300, "0.3 KB"},
        {499, "0.4 KB"},
        {500, "1 KB"},
        {1234, "1 KB"},
        {999499, "999 KB"},
        {1000000, "1000 KB"},
        {1000001, "1.0 MB"},
        {2300000, "2.3 MB"},
        {10000000, "10.0 MB"},
        {10000001, "10 MB"},
        {24400000, "24 MB"},
        {1000000000, "1000 MB"},
        {1000000001, "1.0 GB"},
        {1.5e9, "1.5 GB"},
    };
    for (const auto &[bytes, text] : bands)
        EXPECT_EQ(vd_SimpleUtils::stringFromByteCount(bytes), QString::fromUtf8(text)) << bytes;
}
