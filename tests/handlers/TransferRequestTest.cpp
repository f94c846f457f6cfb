#include "common/DropboxHome.h"
#include "handlers/TransferHandler.h"
#include "utils/vd_FileUtils.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <gtest/gtest.h>

namespace {

struct TransferHome : DropboxHome
{
    QJsonObject request(const QString &path, const QString &destination = QString()) const
    {
        QJsonObject record{{QStringLiteral("path"), path}, {QStringLiteral("vandrel_folder"), root()}};
        if (!destination.isNull())
            record.insert(QStringLiteral("dest_path"), destination);
        return record;
    }
    QByteArray read(const QString &path) const
    {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
    }
};

} // namespace

TEST(TransferRequest, CopiesKeepOldVersionsAndReportTheClippedPath)
{
    TransferHome box;
    const QString source = box.writeFile(QStringLiteral("Documents/a.txt"), "first");
    QJsonObject copy = box.request(source);
    TransferHandler::handleCopyToDropboxRequest(copy);
    const QString month = vd_FileUtils::getFileByDatePath(QStringLiteral("/uploads"));
    EXPECT_EQ(copy.value(QStringLiteral("message")).toString(), QStringLiteral("Copied to Dropbox"));
    EXPECT_EQ(copy.value(QStringLiteral("matching_path")).toString(),
              box.root() + month + QStringLiteral("/a.txt"));
    EXPECT_EQ(copy.value(QStringLiteral("matching_path_clipped")).toString(),
              month + QStringLiteral("/a.txt"));
    EXPECT_FALSE(copy.contains(QStringLiteral("error")));

    // Changed: the old copy is kept as "a V1.txt".
    const QDir uploads(box.root() + month);
    box.writeFile(QStringLiteral("Documents/a.txt"), "second");
    QJsonObject changed = box.request(source);
    TransferHandler::handleCopyToDropboxRequest(changed);
    EXPECT_EQ(box.read(uploads.filePath(QStringLiteral("a.txt"))), QByteArray("second"));
    EXPECT_EQ(box.read(uploads.filePath(QStringLiteral("a V1.txt"))), QByteArray("first"));

    // A folder comes with its contents, and a link inside it stays a link to the same target.
    box.writeFile(QStringLiteral("Project/src/main.c"), "int main;");
    QFile::link(QStringLiteral("/etc/hostname"), box.filePath(QStringLiteral("Project/host")));
    QJsonObject folder =
        box.request(box.filePath(QStringLiteral("Project/")), box.filePath(QStringLiteral("Out")));
    QDir(box.path()).mkpath(QStringLiteral("Out"));
    TransferHandler::handleCopyToDropboxRequest(folder);
    EXPECT_EQ(box.read(box.filePath(QStringLiteral("Out/Project/src/main.c"))), QByteArray("int main;"));
    EXPECT_EQ(QFileInfo(box.filePath(QStringLiteral("Out/Project/host"))).symLinkTarget(),
              QStringLiteral("/etc/hostname"));
    EXPECT_EQ(folder.value(QStringLiteral("matching_path_clipped")).toString(),
              box.filePath(QStringLiteral("Out/Project")));

    // Clipping drops as many characters as the StorageRoot has, wherever in the path it first occurs.
    const QString nested = box.filePath(QStringLiteral("Out")) + box.root();
    QDir().mkpath(nested);
    QJsonObject deeper = box.request(source, nested);
    TransferHandler::handleCopyToDropboxRequest(deeper);
    EXPECT_EQ(deeper.value(QStringLiteral("matching_path_clipped")).toString(),
              (nested + QStringLiteral("/a.txt")).mid(box.root().size()));

    // With neither a StorageRoot nor a destination there is nowhere to copy to: never the top folder.
    QJsonObject nowhere{{QStringLiteral("path"), source}};
    TransferHandler::handleCopyToDropboxRequest(nowhere);
    EXPECT_EQ(nowhere.value(QStringLiteral("error")).toString(),
              QStringLiteral("Not copied, error was no destination folder"));
    EXPECT_FALSE(QFile::exists(QStringLiteral("/a.txt")));

    QJsonObject missing = box.request(box.filePath(QStringLiteral("nothing.txt")));
    TransferHandler::handleCopyToDropboxRequest(missing);
    EXPECT_TRUE(missing.value(QStringLiteral("error"))
                    .toString()
                    .startsWith(QStringLiteral("Not copied, error was No such file")));
    EXPECT_FALSE(missing.contains(QStringLiteral("message")));
}

TEST(TransferRequest, MovesOutOfDropboxNeverReplaceAndKeepTheSourceOnFailure)
{
    TransferHome box;
    const QString inUploads =
        box.writeFile(QStringLiteral("Dropbox/Apps/vandrel/uploads/2014/3/a.txt"), "payload");
    const QString target = box.filePath(QStringLiteral("Target"));
    box.writeFile(QStringLiteral("Target/a.txt"), "existing");
    box.writeFile(QStringLiteral("Target/a (1).txt"), "existing 1");
    QJsonObject move = box.request(inUploads, target);
    TransferHandler::handleMoveFromDropboxRequest(move);
    EXPECT_EQ(move.value(QStringLiteral("message")).toString(), QStringLiteral("Moved out of Dropbox"));
    EXPECT_EQ(box.read(target + QStringLiteral("/a (2).txt")), QByteArray("payload"));
    EXPECT_EQ(box.read(target + QStringLiteral("/a.txt")), QByteArray("existing"));
    EXPECT_FALSE(QFile::exists(inUploads));

    const QString photo = box.writeFile(QStringLiteral("Dropbox/Photos/p.jpg"), "jpeg");
    QJsonObject toDownloads = box.request(photo);
    TransferHandler::handleMoveFromDropboxRequest(toDownloads);
    EXPECT_EQ(box.read(vd_FileUtils::getDefaultMoveFromFolder() + QStringLiteral("/p.jpg")),
              QByteArray("jpeg"));

    QJsonObject noFolder = box.request(box.writeFile(QStringLiteral("Dropbox/c.txt"), "c"),
                                       box.filePath(QStringLiteral("nowhere")));
    TransferHandler::handleMoveFromDropboxRequest(noFolder);
    EXPECT_TRUE(noFolder.value(QStringLiteral("error"))
                    .toString()
                    .startsWith(QStringLiteral("Not removed from Dropbox, error was ")));
    EXPECT_TRUE(QFile::exists(box.filePath(QStringLiteral("Dropbox/c.txt"))));
}

// A move out of a cloud folder's StorageRoot is checked against that cloud folder as against a Dropbox
// folder: an upload may leave, a file outside the cloud folder or one the agent needs may not be taken.
TEST(TransferRequest, CloudFolderUploadsLeaveAndOutsideFilesStay)
{
    TempHome home;
    home.setEnvironment("VANDREL_CLOUD_FOLDERS", QFile::encodeName(home.filePath(QStringLiteral("Sync"))));
    const QString root = home.filePath(QStringLiteral("Sync/Apps/vandrel"));
    home.writeFile(QStringLiteral("Sync/Apps/vandrel/data.vdldata/sessions_are_here.json"), "{}");
    const QString upload =
        home.writeFile(QStringLiteral("Sync/Apps/vandrel/uploads/2026/11/report.txt"), "report");
    const QString outside = home.writeFile(QStringLiteral("Documents/private.txt"), "private");
    const QString required =
        home.writeFile(QStringLiteral("Sync/Apps/vandrel/data.vdldata/computers/x.json"), "{}");
    const QString target = home.filePath(QStringLiteral("Target"));
    QDir().mkpath(target);

    for (const QString &path : {upload, outside, required}) {
        QJsonObject request{{QStringLiteral("path"), path},
                            {QStringLiteral("dest_path"), target},
                            {QStringLiteral("vandrel_folder"), root}};
        TransferHandler::handleMoveFromDropboxRequest(request);
        EXPECT_EQ(request.contains(QStringLiteral("error")), path != upload) << path.toStdString();
    }
    EXPECT_EQ(QDir(target).entryList(QDir::Files), QStringList{QStringLiteral("report.txt")});
    EXPECT_FALSE(QFileInfo::exists(upload));
    EXPECT_TRUE(QFileInfo::exists(outside) && QFileInfo::exists(required));
}
