#include "common/TempHome.h"
#include "handlers/TransferHandler.h"
#include "utils/vd_FileUtils.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonObject>

#include <gtest/gtest.h>

// A move out of a cloud folder's StorageRoot is checked against that cloud folder as against a Dropbox
// folder: an upload may leave, a file outside the cloud folder may not be taken.
TEST(CloudFolderMove, UploadsLeaveAndOutsideFilesStay)
{
    TempHome home;
    const QString sync = home.filePath(QStringLiteral("Sync"));
    qputenv("VANDREL_CLOUD_FOLDERS", sync.toUtf8());
    const QString root = sync + QStringLiteral("/Apps/vandrel");
    home.writeFile(QStringLiteral("Sync/Apps/vandrel/data.vdldata/sessions_are_here.json"), "{}");
    const QString upload =
        home.writeFile(QStringLiteral("Sync/Apps/vandrel/uploads/2026/11/report.txt"), "report");
    const QString outside = home.writeFile(QStringLiteral("Documents/private.txt"), "private");
    const QString target = home.filePath(QStringLiteral("Target"));
    home.writeFile(QStringLiteral("Target/.keep"), "");
    const QString required =
        home.writeFile(QStringLiteral("Sync/Apps/vandrel/data.vdldata/computers/x.json"), "{}");

    const auto move = [&](const QString &path) {
        QJsonObject request{{QStringLiteral("request_type"), QStringLiteral("move_from_dropbox")},
                            {QStringLiteral("path"), path},
                            {QStringLiteral("dest_path"), target},
                            {QStringLiteral("vandrel_folder"), root}};
        TransferHandler::handleMoveFromDropboxRequest(request, {});
        return request;
    };
    const QJsonObject moved = move(upload);
    EXPECT_TRUE(moved.contains(QStringLiteral("message")))
        << moved.value(QStringLiteral("error")).toString().toStdString();
    EXPECT_TRUE(QFileInfo::exists(target + QStringLiteral("/report.txt")));
    EXPECT_FALSE(QFileInfo::exists(upload));

    for (const QString &refused : {outside, required}) {
        const QJsonObject answer = move(refused);
        EXPECT_TRUE(answer.contains(QStringLiteral("error"))) << refused.toStdString();
    }
    EXPECT_TRUE(QFileInfo::exists(outside));
    EXPECT_TRUE(QFileInfo::exists(required));
    qunsetenv("VANDREL_CLOUD_FOLDERS");
}
