#include "common/DropboxHome.h"
#include "handlers/TransferHandler.h"
#include "utils/vd_FileUtils.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace {

// A copy or move request from the StorageRoot, to its default folder unless a destination is given.
QJsonObject request(const QString &root, const QString &path, const QString &destination = {})
{
    QJsonObject record{{u"path"_s, path}, {u"vandrel_folder"_s, root}};
    if (!destination.isNull())
        record.insert(u"dest_path"_s, destination);
    return record;
}

} // namespace

TEST(TransferRules, FreeNamesForMovesOldVersionsForCopiesAndSourceChecksInOrder)
{
    TempHome home;
    for (const char *taken : {"in/a.txt", "in/a (1).txt", "in/Makefile", "in/photos.d/inside"})
        home.writeFile(QLatin1String(taken), "x");
    for (const auto &[wished, unused] : {std::pair{"in/b.txt", "in/b.txt"},
                                         {"in/a.txt", "in/a (2).txt"},
                                         {"in/Makefile", "in/Makefile (1)"},
                                         {"in/photos.d", "in/photos (1).d"}})
        EXPECT_EQ(TransferHandler::getPathThatsUnused(home.filePath(QLatin1String(wished))),
                  home.filePath(QLatin1String(unused)));

    // An identical item means nothing to do; a different one is kept aside as " V<n>".
    const QString source = home.writeFile(u"src/Makefile"_s, "all: new");
    const QString destination = home.writeFile(u"dst/Makefile"_s, "all: new");
    EXPECT_FALSE(TransferHandler::handleOldVersionsAtDestination(destination, source));
    home.writeFile(u"dst/Makefile"_s, "all: old");
    EXPECT_TRUE(TransferHandler::handleOldVersionsAtDestination(destination, source));
    EXPECT_FALSE(QFile::exists(destination));
    EXPECT_EQ(readFile(home.filePath(u"dst/Makefile V1"_s)), QByteArray("all: old"));
    home.writeFile(u"dst/report.pdf"_s, "v0");
    home.writeFile(u"dst/report V1.pdf"_s, "v1");
    EXPECT_TRUE(TransferHandler::handleOldVersionsAtDestination(home.filePath(u"dst/report.pdf"_s), source));
    EXPECT_EQ(readFile(home.filePath(u"dst/report V2.pdf"_s)), QByteArray("v0"));
    EXPECT_TRUE(TransferHandler::handleOldVersionsAtDestination(home.filePath(u"dst/none"_s), source));

    // The rules for what may leave the Dropbox folder, first match wins.
    const char *other =
        "%1 is a folder in use by another dropbox application. You can delete this by removing "
        "permission for this application at www.dropbox.com.";
    const char *emptyFirst = "%1 is a required folder in Dropbox, try removing items inside this folder.";
    const std::pair<const char *, const char *> rows[] = {
        {"/Users/x/Dropbox", "%1 seems to be your Dropbox folder, we are not moving the whole thing!"},
        {"/Users/X/DROPBOX/Apps/Vandrel/uploads/2014/3/a.txt", "allowed"},
        {"/Users/x/Dropbox/Apps", "%1 is a required folder in Dropbox"},
        {"/Users/x/Dropbox/Apps/vandrel/uploads", "%1 is a required folder for Vandrel to operate"},
        {"/Users/x/Dropbox/Apps/vandrel", other},
        {"/Users/x/Dropbox/AppsArchive", other},
        {"/Users/x/Dropbox/Photos", emptyFirst},
        {"/Users/x/Dropbox/public", emptyFirst},
        {"/Users/x/Dropbox/Photos/p.jpg", "allowed"},
    };
    for (const auto &[path, error] : rows)
        EXPECT_EQ(TransferHandler::dropboxMoveSourceError(QLatin1String(path), u"/Users/x/Dropbox"_s)
                      .value_or(u"allowed"_s),
                  QLatin1String(error))
            << path;
    EXPECT_EQ(TransferHandler::dropboxMoveSourceError(u"/a"_s, QString()),
              u"%1 is not in your Dropbox folder"_s);
}

TEST(TransferRequest, CopiesKeepOldVersionsAndReportTheClippedPath)
{
    DropboxHome box;
    const QString source = box.writeFile(u"Documents/a.txt"_s, "first");
    QJsonObject copy = request(box.root(), source);
    TransferHandler::handleCopyToDropboxRequest(copy);
    const QString month = vd_FileUtils::getFileByDatePath(u"/uploads"_s);
    EXPECT_EQ(copy.value(u"message"_s).toString(), u"Copied to Dropbox"_s);
    EXPECT_EQ(copy.value(u"matching_path"_s).toString(), box.root() + month + u"/a.txt"_s);
    EXPECT_EQ(copy.value(u"matching_path_clipped"_s).toString(), month + u"/a.txt"_s);

    // Changed: the old copy is kept as "a V1.txt".
    const QDir uploads(box.root() + month);
    box.writeFile(u"Documents/a.txt"_s, "second");
    QJsonObject changed = request(box.root(), source);
    TransferHandler::handleCopyToDropboxRequest(changed);
    EXPECT_EQ(readFile(uploads.filePath(u"a.txt"_s)), QByteArray("second"));
    EXPECT_EQ(readFile(uploads.filePath(u"a V1.txt"_s)), QByteArray("first"));

    // A folder comes with its contents, and a link inside it stays a link to the same target.
    box.writeFile(u"Project/src/main.c"_s, "int main;");
    QFile::link(u"/etc/hostname"_s, box.filePath(u"Project/host"_s));
    QDir(box.path()).mkpath(u"Out"_s);
    QJsonObject folder = request(box.root(), box.filePath(u"Project/"_s), box.filePath(u"Out"_s));
    TransferHandler::handleCopyToDropboxRequest(folder);
    EXPECT_EQ(readFile(box.filePath(u"Out/Project/src/main.c"_s)), QByteArray("int main;"));
    EXPECT_EQ(QFileInfo(box.filePath(u"Out/Project/host"_s)).symLinkTarget(), u"/etc/hostname"_s);
    EXPECT_EQ(folder.value(u"matching_path_clipped"_s).toString(), box.filePath(u"Out/Project"_s));

    // Clipping drops as many characters as the StorageRoot has, wherever in the path it first occurs.
    const QString nested = box.filePath(u"Out"_s) + box.root();
    QDir().mkpath(nested);
    QJsonObject deeper = request(box.root(), source, nested);
    TransferHandler::handleCopyToDropboxRequest(deeper);
    EXPECT_EQ(deeper.value(u"matching_path_clipped"_s).toString(),
              (nested + u"/a.txt"_s).mid(box.root().size()));

    // With neither a StorageRoot nor a destination there is nowhere to copy to: never the top folder.
    QJsonObject nowhere{{u"path"_s, source}};
    TransferHandler::handleCopyToDropboxRequest(nowhere);
    EXPECT_EQ(nowhere.value(u"error"_s).toString(), u"Not copied, error was no destination folder"_s);
    EXPECT_FALSE(QFile::exists(u"/a.txt"_s));

    QJsonObject missing = request(box.root(), box.filePath(u"nothing.txt"_s));
    TransferHandler::handleCopyToDropboxRequest(missing);
    EXPECT_TRUE(missing.value(u"error"_s).toString().startsWith(u"Not copied, error was No such file"_s));
    EXPECT_FALSE(missing.contains(u"message"_s));
}

TEST(TransferRequest, MovesOutOfCloudFoldersNeverReplaceTakeNothingOutsideAndKeepTheSourceOnFailure)
{
    DropboxHome box;
    const QString inUploads = box.writeFile(u"Dropbox/Apps/vandrel/uploads/2014/3/a.txt"_s, "payload");
    const QString target = box.filePath(u"Target"_s);
    box.writeFile(u"Target/a.txt"_s, "existing");
    QJsonObject move = request(box.root(), inUploads, target);
    TransferHandler::handleMoveFromDropboxRequest(move);
    EXPECT_EQ(move.value(u"message"_s).toString(), u"Moved out of Dropbox"_s);
    EXPECT_EQ(readFile(target + u"/a (1).txt"_s), QByteArray("payload"));
    EXPECT_EQ(readFile(target + u"/a.txt"_s), QByteArray("existing"));
    EXPECT_FALSE(QFile::exists(inUploads));

    QJsonObject toDownloads = request(box.root(), box.writeFile(u"Dropbox/Photos/p.jpg"_s, "jpeg"));
    TransferHandler::handleMoveFromDropboxRequest(toDownloads);
    EXPECT_EQ(readFile(vd_FileUtils::getDefaultMoveFromFolder() + u"/p.jpg"_s), QByteArray("jpeg"));

    const QString stays = box.writeFile(u"Dropbox/c.txt"_s, "c");
    QJsonObject noFolder = request(box.root(), stays, box.filePath(u"nowhere"_s));
    TransferHandler::handleMoveFromDropboxRequest(noFolder);
    EXPECT_TRUE(noFolder.value(u"error"_s).toString().startsWith(u"Not removed from Dropbox, error was "_s));
    EXPECT_TRUE(QFile::exists(stays));

    // Out of another cloud folder's StorageRoot the same rules hold against that cloud folder: an upload may
    // leave, a file outside the cloud folder or one the agent needs may not be taken.
    box.setEnvironment("VANDREL_CLOUD_FOLDERS", QFile::encodeName(box.filePath(u"Sync"_s)));
    const QString upload = box.writeFile(u"Sync/Apps/vandrel/uploads/2026/11/report.txt"_s, "report");
    const QString outside = box.writeFile(u"Documents/private.txt"_s, "private");
    const QString required = box.writeFile(u"Sync/Apps/vandrel/data.vdldata/computers/x.json"_s, "{}");
    const QString out = box.filePath(u"Out"_s);
    QDir().mkpath(out);
    for (const QString &path : {upload, outside, required}) {
        QJsonObject move = request(box.filePath(u"Sync/Apps/vandrel"_s), path, out);
        TransferHandler::handleMoveFromDropboxRequest(move);
        EXPECT_EQ(move.contains(u"error"_s), path != upload) << path.toStdString();
    }
    EXPECT_EQ(QDir(out).entryList(QDir::Files), QStringList{u"report.txt"_s});
    EXPECT_FALSE(QFileInfo::exists(upload));
    EXPECT_TRUE(QFileInfo::exists(outside) && QFileInfo::exists(required));
}
