#include "common/DropboxHome.h"
#include "platform/SettingsKeys.h"
#include "platform/UserDefaults.h"
#include "utils/vd_FileUtils.h"

#include <QDir>

#include <gtest/gtest.h>

TEST(CloudFolders, ListedAfterDropboxAndGoogleDriveByTheSameMarkerRules)
{
    DropboxHome home;
    writeMarker(home, QStringLiteral("Dropbox/Apps/vandrel"), 100000);
    QDir(home.path()).mkpath(QStringLiteral("GDrive"));
    writeMarker(home, QStringLiteral("Sync/Apps/vandrel"), 100000);
    // No standard folder: the deep search finds the moved one, as in a Dropbox folder.
    writeMarker(home, QStringLiteral("Nextcloud/Projects/Vandrel"), 10);
    QDir(home.path()).mkpath(QStringLiteral("Empty"));
    const QString h = home.path();
    home.setEnvironment("VANDREL_CLOUD_FOLDERS",
                        (h + "/Sync/:" + h + "/missing::relative/folder:" + h + "/Nextcloud:" + h +
                         "/Dropbox:" + h + "/Sync:" + h + "/Empty")
                            .toUtf8());

    EXPECT_EQ(vd_FileUtils::cloudFolders(),
              (QStringList{h + "/Sync", h + "/Nextcloud", h + "/Dropbox", h + "/Empty"}))
        << "missing and relative folders are left out, each folder once";
    EXPECT_EQ(vd_FileUtils::storageFoldersDropBoxGDriveEtc(),
              (QStringList{home.root(), h + "/GDrive/Apps/vandrel", h + "/Sync/Apps/vandrel",
                           h + "/Nextcloud/Projects/Vandrel"}))
        << "a cloud folder that is also the Dropbox folder gives its root once; one without any gives none";
    EXPECT_EQ(UserDefaults::stringValue(SettingsKeys::LastBestPath), h + "/Nextcloud/Projects/Vandrel");

    // The folder a path lies in, by whole components.
    EXPECT_EQ(vd_FileUtils::dropBoxFolderGET(h + "/Sync/Apps/vandrel"), h + "/Sync");
    EXPECT_EQ(vd_FileUtils::dropBoxFolderGET(h + "/Nextcloud/Projects/Vandrel/uploads/x"), h + "/Nextcloud");
    EXPECT_EQ(vd_FileUtils::dropBoxFolderGET(home.root()), h + "/Dropbox");
    EXPECT_EQ(vd_FileUtils::dropBoxFolderGET(h + "/Sync-other/Apps/vandrel"), h + "/Dropbox")
        << "not the cloud folder whose name merely begins it; the Dropbox fallback as before";
}

TEST(CloudFolders, StoredListWhenTheEnvironmentSaysNothing)
{
    TempHome home;
    qunsetenv("VANDREL_CLOUD_FOLDERS");
    writeMarker(home, QStringLiteral("A/Apps/vandrel"), 5);
    writeMarker(home, QStringLiteral("B/Apps/vandrel"), 5);
    EXPECT_TRUE(vd_FileUtils::cloudFolders().isEmpty());
    EXPECT_TRUE(vd_FileUtils::storageFoldersDropBoxGDriveEtc().isEmpty());
    UserDefaults::setValue(SettingsKeys::CloudFolders, QStringList{home.filePath("B"), home.filePath("A")});
    EXPECT_EQ(vd_FileUtils::storageFoldersDropBoxGDriveEtc(),
              (QStringList{home.filePath("B/Apps/vandrel"), home.filePath("A/Apps/vandrel")}));
    UserDefaults::setValue(SettingsKeys::CloudFolders, home.filePath("A"));
    EXPECT_EQ(vd_FileUtils::cloudFolders(), QStringList{home.filePath("A")});
    EXPECT_EQ(vd_FileUtils::dropBoxFolderGET(home.filePath("A/Apps/vandrel")), home.filePath("A"));
    EXPECT_EQ(vd_FileUtils::dropBoxFolderGET(home.filePath("B/Apps/vandrel")), QString());
}
