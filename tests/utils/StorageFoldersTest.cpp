#include "common/DropboxHome.h"
#include "platform/SettingsKeys.h"
#include "platform/UserDefaults.h"
#include "utils/vd_FileUtils.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <gtest/gtest.h>
#include <sys/stat.h>

TEST(StorageFolders, AccountsInFileOrderThenGoogleDriveThenCloudFoldersByTheSameMarkerRules)
{
    TempHome home;
    const QString h = home.path();
    writeMarker(home, QStringLiteral("Work/Apps/vandrel"), 100000);
    writeMarker(home, QStringLiteral("Personal/Apps/vandrel"), 100000);
    writeMarker(home, QStringLiteral("Sync/Apps/vandrel"), 100000);
    // No standard folder: the deep search finds the moved one, as in a Dropbox folder.
    writeMarker(home, QStringLiteral("Nextcloud/Projects/Vandrel"), 10);
    // Only the legacy branch scans the home folder for "Dropbox (Old)".
    for (const char *folder : {"GDrive", "Empty", "Dropbox (Old)"})
        QDir(h).mkpath(QLatin1String(folder));
    // Saved with a byte-order mark, as editors on other systems do.
    home.writeFile(
        QStringLiteral(".dropbox/info.json"),
        QStringLiteral("\uFEFF{\"zeta\": {\"path\": \"%1/Personal\"}, \"alpha\": {\"path\": \"%1/Work\"},"
                       " \"other\": {\"host\": 5}}")
            .arg(h)
            .toUtf8());
    home.setEnvironment("VANDREL_CLOUD_FOLDERS", (h + "/Sync/:" + h + "/missing::relative/folder:" + h +
                                                  "/Nextcloud:" + h + "/Work:" + h + "/Sync:" + h + "/Empty")
                                                     .toUtf8());

    EXPECT_EQ(vd_FileUtils::dropBoxFolderGETAll(), (QStringList{h + "/Personal", h + "/Work"}));
    EXPECT_EQ(vd_FileUtils::cloudFolders(),
              (QStringList{h + "/Sync", h + "/Nextcloud", h + "/Work", h + "/Empty"}))
        << "missing and relative folders are left out, each folder once";
    EXPECT_EQ(vd_FileUtils::storageFoldersDropBoxGDriveEtc(),
              (QStringList{h + "/Personal/Apps/vandrel", h + "/Work/Apps/vandrel", h + "/GDrive/Apps/vandrel",
                           h + "/Sync/Apps/vandrel", h + "/Nextcloud/Projects/Vandrel"}))
        << "a cloud folder that is also a Dropbox folder gives its root once; one without any gives none";
    EXPECT_TRUE(QFileInfo(h + "/GDrive/Apps/vandrel").isDir());

    // A plain prefix test, as the cloud client's own folders are compared; whole components for the others.
    EXPECT_EQ(vd_FileUtils::dropBoxFolderGET(h + "/Work2/a"), h + "/Work");
    EXPECT_EQ(vd_FileUtils::dropBoxFolderGET(h + "/Nextcloud/Projects/Vandrel/uploads/x"), h + "/Nextcloud");
    EXPECT_EQ(vd_FileUtils::dropBoxFolderGET(h + "/Sync-other/Apps/vandrel"), QString());
    QDir(h).mkpath(QStringLiteral("Dropbox"));
    EXPECT_EQ(vd_FileUtils::dropBoxFolderGET(QStringLiteral("/elsewhere")), h + "/Dropbox")
        << "the standard folder when nothing else holds the path";
}

TEST(StorageFolders, LegacyHostFileAndItsHomeScanThenTheStandardFolder)
{
    TempHome home;
    // Accounts without a path count as no account file.
    home.writeFile(QStringLiteral(".dropbox/info.json"), "{\"personal\": {\"host\": 1}}");
    for (const char *folder : {"Legacy", "Dropbox (Team)", "Dropbox"})
        QDir(home.path()).mkpath(QLatin1String(folder));
    home.writeFile(QStringLiteral("Dropbox Notes"), "a file, not a folder");
    const QByteArray encoded = home.filePath(QStringLiteral("Legacy")).toUtf8().toBase64();
    home.writeFile(QStringLiteral(".dropbox/host.db"), "1234\n" + encoded + "\nmore");
    EXPECT_EQ(vd_FileUtils::dropBoxFolderGETAll(),
              QStringList({home.filePath(QStringLiteral("Legacy")),
                           home.filePath(QStringLiteral("Dropbox (Team)"))}));

    // "\r\n" is two line breaks, so the second line is empty; one line names nothing; a huge file is not
    // read: no legacy folder, so the standard one.
    for (const QByteArray &hostDb :
         {"1234\r\n" + encoded.left(8) + '\n' + encoded.mid(8), QByteArray("just one line"),
          "1234\n" + encoded + '\n' + QByteArray(2 << 20, ' ')}) {
        home.writeFile(QStringLiteral(".dropbox/host.db"), hostDb);
        EXPECT_EQ(vd_FileUtils::dropBoxFolderGETAll(),
                  QStringList({home.filePath(QStringLiteral("Dropbox"))}));
    }
    // Pipes in the client files' places are not read (reading would wait for ever).
    for (const char *name : {".dropbox/host.db", ".dropbox/info.json"}) {
        QFile::remove(home.filePath(QLatin1String(name)));
        ASSERT_EQ(::mkfifo(QFile::encodeName(home.filePath(QLatin1String(name))).constData(), 0600), 0);
    }
    EXPECT_EQ(vd_FileUtils::dropBoxFolderGETAll(), QStringList({home.filePath(QStringLiteral("Dropbox"))}));
    QDir(home.filePath(QStringLiteral("Dropbox"))).removeRecursively();
    EXPECT_TRUE(vd_FileUtils::dropBoxFolderGETAll().isEmpty());
}

TEST(StorageFolders, DeepSearchDepthFreshnessAndCache)
{
    TempHome home;
    const QDateTime now = QDateTime::currentDateTimeUtc();
    const QString dropbox = home.filePath(QStringLiteral("Dropbox"));

    // Depth 6 is never examined, depth 5 is.
    QDir(dropbox).mkpath(QStringLiteral("1/2/3/4/5/VANDREL"));
    // A link back up the tree is not followed, so the walk ends.
    ASSERT_TRUE(QFile::link(dropbox, dropbox + QStringLiteral("/1/2/loop")));
    EXPECT_EQ(vd_FileUtils::findVandrelFolder(dropbox, now), std::nullopt);
    QDir(dropbox).mkpath(QStringLiteral("1/2/3/4/VANDREL"));
    EXPECT_EQ(vd_FileUtils::findVandrelFolder(dropbox, now), dropbox + QStringLiteral("/1/2/3/4/VANDREL"));

    // A stale marker (3000 s old or more) wins over an unmarked folder but is not remembered.
    writeMarker(home, QStringLiteral("Dropbox/Projects/Vandrel"), 3001, now);
    EXPECT_EQ(vd_FileUtils::findVandrelFolder(dropbox, now), dropbox + QStringLiteral("/Projects/Vandrel"));
    EXPECT_FALSE(UserDefaults::contains(SettingsKeys::LastBestPath));

    // A fresh one wins at once, is remembered, and then answers for any folder while it exists.
    writeMarker(home, QStringLiteral("Dropbox/Projects/Vandrel"), 2999, now);
    EXPECT_EQ(vd_FileUtils::dropBoxFolderVandrel(dropbox), dropbox + QStringLiteral("/Projects/Vandrel"));
    EXPECT_EQ(UserDefaults::stringValue(SettingsKeys::LastBestPath),
              dropbox + QStringLiteral("/Projects/Vandrel"));
    EXPECT_EQ(vd_FileUtils::findVandrelFolder(home.filePath(QStringLiteral("Other")), now),
              dropbox + QStringLiteral("/Projects/Vandrel"));
    vd_FileUtils::resetVandrelFolderCache();
    EXPECT_EQ(vd_FileUtils::findVandrelFolder(home.filePath(QStringLiteral("Other")), now), std::nullopt);

    // The standard place needs its marker to be taken without a search.
    QDir(dropbox).mkpath(QStringLiteral("Apps/vandrel"));
    EXPECT_EQ(vd_FileUtils::dropBoxFolderVandrel(dropbox), dropbox + QStringLiteral("/Projects/Vandrel"));
    writeMarker(home, QStringLiteral("Dropbox/Apps/vandrel"), 1e6, now);
    EXPECT_EQ(vd_FileUtils::dropBoxFolderVandrel(dropbox), dropbox + QStringLiteral("/Apps/vandrel"));
    EXPECT_EQ(vd_FileUtils::dropBoxFolderVandrel(QString()), std::nullopt);
}

TEST(StorageFolders, MonthFoldersForUploadsAndDownloads)
{
    TempHome home;
    const QDateTime march(QDate(2014, 3, 15), QTime(12, 0), Qt::LocalTime);
    EXPECT_EQ(vd_FileUtils::getDefaultDropBoxUploadsFolder(home.filePath(QStringLiteral("root")), march),
              home.filePath(QStringLiteral("root/uploads/2014/3")));
    EXPECT_TRUE(QFileInfo(home.filePath(QStringLiteral("root/uploads/2014/3"))).isDir());
    // No root: nothing is made at the top of the file system.
    EXPECT_EQ(vd_FileUtils::getDefaultDropBoxUploadsFolder(QString(), march), QString());
    EXPECT_FALSE(QFileInfo::exists(QStringLiteral("/2014/3")));

    // Month numbers are not padded.
    const QDateTime november(QDate(2014, 11, 30), QTime(23, 59, 59), Qt::LocalTime);
    home.writeFile(QStringLiteral(".config/user-dirs.dirs"), "XDG_DOWNLOAD_DIR=\"$HOME/T\xc3\xa9l\xc3\xa9"
                                                             "chargements\"\n");
    EXPECT_EQ(vd_FileUtils::getDefaultMoveFromFolder(november),
              home.filePath(QStringLiteral("T\u00e9l\u00e9chargements/From Dropbox/2014/11")));
    EXPECT_TRUE(
        QFileInfo(home.filePath(QStringLiteral("T\u00e9l\u00e9chargements/From Dropbox/2014/11"))).isDir());
}

TEST(CloudFolders, StoredListWhenTheEnvironmentSaysNothing)
{
    TempHome home;
    qunsetenv("VANDREL_CLOUD_FOLDERS");
    writeMarker(home, QStringLiteral("A/Apps/vandrel"), 5);
    writeMarker(home, QStringLiteral("B/Apps/vandrel"), 5);
    EXPECT_TRUE(vd_FileUtils::storageFoldersDropBoxGDriveEtc().isEmpty());
    UserDefaults::setValue(SettingsKeys::CloudFolders, QStringList{home.filePath("B"), home.filePath("A")});
    EXPECT_EQ(vd_FileUtils::storageFoldersDropBoxGDriveEtc(),
              (QStringList{home.filePath("B/Apps/vandrel"), home.filePath("A/Apps/vandrel")}));
}
