#include "common/TempHome.h"
#include "platform/SettingsKeys.h"
#include "platform/UserDefaults.h"
#include "utils/vd_FileUtils.h"

#include <QDateTime>
#include <QDir>

#include <gtest/gtest.h>

namespace {

void writeMarker(const TempHome &home, const QString &appFolder, double ageSeconds)
{
    home.writeFile(appFolder + QStringLiteral("/data.vdldata/sessions_are_here.json"),
                   QStringLiteral("{\"date\": %1}")
                       .arg(vd_FileUtils::JSONDate(QDateTime::currentDateTimeUtc()) - ageSeconds, 0, 'f', 3)
                       .toUtf8());
}

// Sets the environment variable for the test's lifetime.
struct ScopedEnvironment
{
    ScopedEnvironment(const char *name, const QByteArray &value)
        : name(name)
    {
        qputenv(name, value);
    }
    ~ScopedEnvironment() { qunsetenv(name); }
    const char *name;
};

} // namespace

TEST(CloudFolders, ListedAfterDropboxAndGoogleDriveByTheSameMarkerRules)
{
    TempHome home;
    writeMarker(home, QStringLiteral("Dropbox/Apps/vandrel"), 100000);
    QDir(home.path()).mkpath(QStringLiteral("GDrive"));
    writeMarker(home, QStringLiteral("Sync/Apps/vandrel"), 100000);
    // No standard folder: the deep search finds the moved one, as in a Dropbox folder.
    writeMarker(home, QStringLiteral("Nextcloud/Projects/Vandrel"), 10);
    QDir(home.path()).mkpath(QStringLiteral("Empty"));
    const QString h = home.path();
    const ScopedEnvironment folders("VANDREL_CLOUD_FOLDERS",
                                    (h + "/Sync/:" + h + "/missing::relative/folder:" + h +
                                     "/Nextcloud:" + h + "/Dropbox:" + h + "/Sync:" + h + "/Empty")
                                        .toUtf8());

    EXPECT_EQ(vd_FileUtils::cloudFolders(),
              (QStringList{h + "/Sync", h + "/Nextcloud", h + "/Dropbox", h + "/Empty"}))
        << "missing and relative folders are left out, each folder once";
    EXPECT_EQ(vd_FileUtils::storageFoldersDropBoxGDriveEtc(),
              (QStringList{h + "/Dropbox/Apps/vandrel", h + "/GDrive/Apps/vandrel", h + "/Sync/Apps/vandrel",
                           h + "/Nextcloud/Projects/Vandrel"}))
        << "a cloud folder that is also the Dropbox folder gives its root once; one without any gives none";
    EXPECT_EQ(UserDefaults::stringValue(SettingsKeys::LastBestPath), h + "/Nextcloud/Projects/Vandrel");

    // The folder a path lies in, by whole components.
    EXPECT_EQ(vd_FileUtils::dropBoxFolderGET(h + "/Sync/Apps/vandrel"), h + "/Sync");
    EXPECT_EQ(vd_FileUtils::dropBoxFolderGET(h + "/Nextcloud/Projects/Vandrel/uploads/x"), h + "/Nextcloud");
    EXPECT_EQ(vd_FileUtils::dropBoxFolderGET(h + "/Dropbox/Apps/vandrel"), h + "/Dropbox");
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
