#include "common/TempHome.h"
#include "handlers/TransferHandler.h"
#include "utils/vd_FileUtils.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <gtest/gtest.h>

namespace {

struct DropboxHome
{
    DropboxHome()
    {
        home.writeFile(QStringLiteral("Dropbox/Apps/vandrel/data.vdldata/sessions_are_here.json"), "{}");
        root = home.filePath(QStringLiteral("Dropbox/Apps/vandrel"));
    }
    QJsonObject request(const QString &path, const QString &destination = QString()) const
    {
        QJsonObject record{{QStringLiteral("path"), path}, {QStringLiteral("vandrel_folder"), root}};
        if (!destination.isNull())
            record.insert(QStringLiteral("dest_path"), destination);
        return record;
    }
    QByteArray read(const QString &path) const
    {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<missing>");
    }
    TempHome home;
    QString root;
};

} // namespace

TEST(TransferRequest, CopiesKeepOldVersionsAndReportTheClippedPath)
{
    DropboxHome box;
    const QString source = box.home.writeFile(QStringLiteral("Documents/a.txt"), "first");
    QJsonObject copy = box.request(source);
    TransferHandler::handleCopyToDropboxRequest(copy);
    const QString month = vd_FileUtils::getFileByDatePath(QStringLiteral("/uploads"));
    EXPECT_EQ(copy.value(QStringLiteral("message")).toString(), QStringLiteral("Copied to Dropbox"));
    EXPECT_EQ(copy.value(QStringLiteral("matching_path")).toString(),
              box.root + month + QStringLiteral("/a.txt"));
    EXPECT_EQ(copy.value(QStringLiteral("matching_path_clipped")).toString(),
              month + QStringLiteral("/a.txt"));
    EXPECT_FALSE(copy.contains(QStringLiteral("error")));

    // Unchanged: nothing new, still a success. Changed: the old copy is kept as "a V1.txt".
    QJsonObject again = box.request(source);
    TransferHandler::handleCopyToDropboxRequest(again);
    EXPECT_EQ(again.value(QStringLiteral("message")).toString(), QStringLiteral("Copied to Dropbox"));
    const QDir uploads(box.root + month);
    EXPECT_EQ(uploads.entryList(QDir::Files), QStringList({QStringLiteral("a.txt")}));
    box.home.writeFile(QStringLiteral("Documents/a.txt"), "second");
    QJsonObject changed = box.request(source);
    TransferHandler::handleCopyToDropboxRequest(changed);
    EXPECT_EQ(box.read(uploads.filePath(QStringLiteral("a.txt"))), QByteArray("second"));
    EXPECT_EQ(box.read(uploads.filePath(QStringLiteral("a V1.txt"))), QByteArray("first"));

    // A folder comes with its contents, and a link inside it stays a link to the same target.
    box.home.writeFile(QStringLiteral("Project/src/main.c"), "int main;");
    QFile::link(QStringLiteral("/etc/hostname"), box.home.filePath(QStringLiteral("Project/host")));
    QJsonObject folder =
        box.request(box.home.filePath(QStringLiteral("Project/")), box.home.filePath(QStringLiteral("Out")));
    QDir(box.home.path()).mkpath(QStringLiteral("Out"));
    TransferHandler::handleCopyToDropboxRequest(folder);
    EXPECT_EQ(box.read(box.home.filePath(QStringLiteral("Out/Project/src/main.c"))), QByteArray("int main;"));
    EXPECT_EQ(QFileInfo(box.home.filePath(QStringLiteral("Out/Project/host"))).symLinkTarget(),
              QStringLiteral("/etc/hostname"));
    EXPECT_EQ(folder.value(QStringLiteral("matching_path_clipped")).toString(),
              box.home.filePath(QStringLiteral("Out/Project")));

    // Clipping drops as many characters as the StorageRoot has, wherever in the path it first occurs.
    const QString nested = box.home.filePath(QStringLiteral("Out")) + box.root;
    QDir().mkpath(nested);
    QJsonObject deeper = box.request(source, nested);
    TransferHandler::handleCopyToDropboxRequest(deeper);
    EXPECT_EQ(deeper.value(QStringLiteral("matching_path_clipped")).toString(),
              (nested + QStringLiteral("/a.txt")).mid(box.root.size()));

    // With neither a StorageRoot nor a destination there is nowhere to copy to: never the top folder.
    QJsonObject nowhere{{QStringLiteral("path"), source}};
    TransferHandler::handleCopyToDropboxRequest(nowhere);
    EXPECT_EQ(nowhere.value(QStringLiteral("error")).toString(),
              QStringLiteral("Not copied, error was no destination folder"));
    EXPECT_FALSE(QFile::exists(QStringLiteral("/a.txt")));

    QJsonObject missing = box.request(box.home.filePath(QStringLiteral("nothing.txt")));
    TransferHandler::handleCopyToDropboxRequest(missing);
    EXPECT_TRUE(missing.value(QStringLiteral("error"))
                    .toString()
                    .startsWith(QStringLiteral("Not copied, error was No such file")));
    EXPECT_FALSE(missing.contains(QStringLiteral("message")));
}

TEST(TransferRequest, MovesOutOfDropboxNeverReplaceAndRefuseProtectedFolders)
{
    DropboxHome box;
    const QString inUploads =
        box.home.writeFile(QStringLiteral("Dropbox/Apps/vandrel/uploads/2014/3/a.txt"), "payload");
    const QString target = box.home.filePath(QStringLiteral("Target"));
    box.home.writeFile(QStringLiteral("Target/a.txt"), "existing");
    box.home.writeFile(QStringLiteral("Target/a (1).txt"), "existing 1");
    QJsonObject move = box.request(inUploads, target);
    TransferHandler::handleMoveFromDropboxRequest(move);
    EXPECT_EQ(move.value(QStringLiteral("message")).toString(), QStringLiteral("Moved out of Dropbox"));
    EXPECT_EQ(box.read(target + QStringLiteral("/a (2).txt")), QByteArray("payload"));
    EXPECT_EQ(box.read(target + QStringLiteral("/a.txt")), QByteArray("existing"));
    EXPECT_FALSE(QFile::exists(inUploads));

    const QString photo = box.home.writeFile(QStringLiteral("Dropbox/Photos/p.jpg"), "jpeg");
    QJsonObject toDownloads = box.request(photo);
    TransferHandler::handleMoveFromDropboxRequest(toDownloads);
    EXPECT_EQ(box.read(vd_FileUtils::getDefaultMoveFromFolder() + QStringLiteral("/p.jpg")),
              QByteArray("jpeg"));

    QJsonObject refused = box.request(box.home.filePath(QStringLiteral("Dropbox/Photos")));
    TransferHandler::handleMoveFromDropboxRequest(refused);
    EXPECT_EQ(refused.value(QStringLiteral("error")).toString(),
              box.home.filePath(QStringLiteral("Dropbox/Photos")) +
                  QStringLiteral(" is a required folder in Dropbox, try removing items inside this folder."));
    EXPECT_TRUE(QFileInfo(box.home.filePath(QStringLiteral("Dropbox/Photos"))).isDir());

    const QString outside = box.home.writeFile(QStringLiteral("Documents/b.txt"), "b");
    QJsonObject notDropbox = box.request(outside);
    TransferHandler::handleMoveFromDropboxRequest(notDropbox);
    EXPECT_EQ(notDropbox.value(QStringLiteral("error")).toString(),
              outside + QStringLiteral(" is not in your Dropbox folder"));

    QJsonObject noFolder = box.request(box.home.writeFile(QStringLiteral("Dropbox/c.txt"), "c"),
                                       box.home.filePath(QStringLiteral("nowhere")));
    TransferHandler::handleMoveFromDropboxRequest(noFolder);
    EXPECT_TRUE(noFolder.value(QStringLiteral("error"))
                    .toString()
                    .startsWith(QStringLiteral("Not removed from Dropbox, error was ")));
    EXPECT_TRUE(QFile::exists(box.home.filePath(QStringLiteral("Dropbox/c.txt"))));
}
