#include "common/TempHome.h"
#include "platform/SettingsKeys.h"
#include "platform/UserDefaults.h"
#include "utils/vd_FileUtils.h"

#include <QDate>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <gtest/gtest.h>

namespace {

// A fabricated Dropbox and Google Drive layout inside a temporary home.
struct Layout : TempHome
{
    QString dir(const QString &relative) const
    {
        QDir().mkpath(filePath(relative));
        return filePath(relative);
    }
    // A StorageRoot candidate whose WebApp marker was written `age` seconds ago.
    QString marked(const QString &relative, double age) const
    {
        const double date = double(QDateTime::currentMSecsSinceEpoch()) / 1000.0 - age;
        writeFile(relative + QStringLiteral("/data.vdldata/sessions_are_here.json"),
                  "{\"date\": " + QByteArray::number(date, 'f', 3) + "}");
        return filePath(relative);
    }
};

QString monthPath()
{
    const QDate today = QDate::currentDate();
    return QStringLiteral("/%1/%2").arg(today.year()).arg(today.month());
}

} // namespace

TEST(StorageFolders, DropboxFoldersComeFromOneSourceInOrder)
{
    Layout home;
    const QString personal = home.dir(QStringLiteral("Dropbox"));
    const QString business = home.dir(QStringLiteral("Dropbox (Business)"));
    const QString extra = home.dir(QStringLiteral("Dropbox Extra"));
    home.dir(QStringLiteral("Dropbox2"));

    // Neither client file: only "~/Dropbox", and a text-prefix match answers for any path.
    EXPECT_EQ(vd_FileUtils::dropBoxFolderGETAll(), QStringList{personal});
    EXPECT_EQ(vd_FileUtils::dropBoxFolderGET(QStringLiteral("/elsewhere/a")), personal);

    // The account file's order is kept (its keys sort the other way), accounts without a "path" string
    // give nothing, and the home-folder scan does not run.
    const QString info = "{\"zeta\": {\"path\": \"" + personal + "\"}, \"alpha\": {\"path\": \"" + business +
                         "\"}, \"team\": {\"host\": 1}, \"odd\": {\"path\": 7}, \"bare\": 3}";
    home.writeFile(QStringLiteral(".dropbox/info.json"), info.toUtf8());
    EXPECT_EQ(vd_FileUtils::dropBoxFolderGETAll(), QStringList({personal, business}));
    EXPECT_EQ(vd_FileUtils::dropBoxFolderGET(personal + QStringLiteral("2/a")), personal);
    EXPECT_EQ(vd_FileUtils::dropBoxFolderGET(business + QStringLiteral("/a")), personal);

    // Accounts without paths, or a file that is no JSON object, read as absent: the legacy host file's
    // second line is next, followed by the scan of "Dropbox …" folders.
    const QString legacy = home.dir(QStringLiteral("Old Box"));
    home.writeFile(QStringLiteral(".dropbox/host.db"), "f00d\n" + legacy.toUtf8().toBase64() + "\n");
    for (const QByteArray &content : {QByteArray("{\"a\": {\"host\": 1}}"), QByteArray("[1, 2"),
                                      QByteArray(100, '[') + QByteArray(100, ']')}) {
        home.writeFile(QStringLiteral(".dropbox/info.json"), content);
        EXPECT_EQ(vd_FileUtils::dropBoxFolderGETAll(), QStringList({legacy, business, extra}))
            << content.data();
    }

    // A single line, "\r\n" (an empty second line) or a path that does not exist give no folder.
    for (const QByteArray &content : {legacy.toUtf8().toBase64(), "f00d\r\n" + legacy.toUtf8().toBase64(),
                                      "f00d\n" + QByteArray("/gone/away").toBase64()}) {
        home.writeFile(QStringLiteral(".dropbox/host.db"), content);
        EXPECT_EQ(vd_FileUtils::dropBoxFolderGETAll(), QStringList{personal}) << content.data();
    }

    ASSERT_TRUE(QDir(personal).removeRecursively());
    EXPECT_TRUE(vd_FileUtils::dropBoxFolderGETAll().isEmpty());
    EXPECT_EQ(vd_FileUtils::dropBoxFolderGET(business), QString());
}

TEST(StorageFolders, StorageRootsInOrderWithGoogleDriveLast)
{
    Layout home;
    const QString personal = home.dir(QStringLiteral("Dropbox"));
    const QString business = home.dir(QStringLiteral("Dropbox (Business)"));
    home.writeFile(
        QStringLiteral(".dropbox/info.json"),
        ("{\"personal\": {\"path\": \"" + personal + "\"}, \"business\": {\"path\": \"" + business + "\"}}")
            .toUtf8());
    EXPECT_TRUE(vd_FileUtils::storageFoldersDropBoxGDriveEtc().isEmpty());

    const QString first = home.marked(QStringLiteral("Dropbox/Apps/vandrel"), 100000);
    const QString second = home.marked(QStringLiteral("Dropbox (Business)/Apps/vandrel"), 100000);
    home.dir(QStringLiteral("GDrive"));
    const QString googleDrive = home.filePath(QStringLiteral("GDrive/Apps/vandrel"));
    EXPECT_EQ(vd_FileUtils::storageFoldersDropBoxGDriveEtc(), QStringList({first, second, googleDrive}));
    EXPECT_TRUE(QFileInfo(googleDrive).isDir());

    EXPECT_EQ(vd_FileUtils::getDefaultDropBoxUploadsFolder(first),
              first + QStringLiteral("/uploads") + monthPath());
    EXPECT_TRUE(QFileInfo(first + QStringLiteral("/uploads") + monthPath()).isDir());
    EXPECT_EQ(vd_FileUtils::getDefaultDropBoxUploadsFolderROOT(QString()), QString());

    EXPECT_EQ(vd_FileUtils::getDefaultMoveFromFolder(),
              home.filePath(QStringLiteral("Downloads/From Dropbox")) + monthPath());
    home.writeFile(QStringLiteral(".config/user-dirs.dirs"), "XDG_DOWNLOAD_DIR=\"$HOME/Téléchargements\"\n");
    const QString moveFrom = vd_FileUtils::getDefaultMoveFromFolder();
    EXPECT_EQ(moveFrom, home.filePath(QStringLiteral("Téléchargements/From Dropbox")) + monthPath());
    EXPECT_TRUE(QFileInfo(moveFrom).isDir());
}

TEST(StorageFolders, DeepSearchFindsMovedAppFoldersAndCachesOnlyFreshOnes)
{
    Layout home;
    const QString dropbox = home.dir(QStringLiteral("Dropbox"));
    const QString lastBestPath = SettingsKeys::LastBestPath;
    // Depth 6 is out of reach, however fresh; a link back up must not make the walk go round.
    home.marked(QStringLiteral("Dropbox/a/b/c/d/e/Vandrel"), 1);
    ASSERT_TRUE(QFile::link(dropbox, dropbox + QStringLiteral("/a/loop")));
    EXPECT_EQ(vd_FileUtils::findVandrelFolder(dropbox), std::nullopt);
    EXPECT_TRUE(vd_FileUtils::storageFoldersDropBoxGDriveEtc().isEmpty());

    // Depth 5 counts, even with no marker at all.
    const QString unmarked = home.dir(QStringLiteral("Dropbox/a/b/c/d/VANDREL"));
    EXPECT_EQ(vd_FileUtils::findVandrelFolder(dropbox), unmarked);

    // Of stale markers the newest wins, and nothing is remembered.
    home.marked(QStringLiteral("Dropbox/Old/vandrel"), 9000);
    const QString projects = home.marked(QStringLiteral("Dropbox/Projects/Vandrel"), 7200);
    EXPECT_EQ(vd_FileUtils::findVandrelFolder(dropbox), projects);
    EXPECT_FALSE(UserDefaults::contains(lastBestPath));

    // A marker from ten seconds ago wins and is remembered; the cache then answers for any folder.
    home.marked(QStringLiteral("Dropbox/Projects/Vandrel"), 10);
    EXPECT_EQ(vd_FileUtils::storageFoldersDropBoxGDriveEtc(), QStringList{projects});
    EXPECT_EQ(UserDefaults::stringValue(lastBestPath), projects);
    home.marked(QStringLiteral("Dropbox/Old/vandrel"), 5);
    EXPECT_EQ(vd_FileUtils::findVandrelFolder(home.dir(QStringLiteral("Other"))), projects);

    // Until the cache is reset, or its folder goes.
    vd_FileUtils::resetVandrelFolderCache();
    EXPECT_FALSE(UserDefaults::contains(lastBestPath));
    EXPECT_EQ(vd_FileUtils::findVandrelFolder(home.dir(QStringLiteral("Other"))), std::nullopt);
    UserDefaults::setValue(lastBestPath, home.filePath(QStringLiteral("gone")));
    const QString found = vd_FileUtils::findVandrelFolder(dropbox).value_or(QString());
    EXPECT_TRUE(found == projects || found == home.filePath(QStringLiteral("Dropbox/Old/vandrel")));
    EXPECT_EQ(UserDefaults::stringValue(lastBestPath), found);

    // The standard place needs no search at all.
    const QString standard = home.marked(QStringLiteral("Dropbox/Apps/vandrel"), 100000);
    EXPECT_EQ(vd_FileUtils::dropBoxFolderVandrel(dropbox), standard);
    EXPECT_EQ(vd_FileUtils::dropBoxFolderVandrel(QString()), std::nullopt);
}
