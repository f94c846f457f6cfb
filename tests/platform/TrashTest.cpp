#include "platform/Trash.h"

#include "common/TempHome.h"

#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

// The restore record the file manager needs for an item in a trash's "files" folder.
QString restoreRecord(const QString &inTrash)
{
    const QFileInfo item(inTrash);
    return item.absoluteDir().absoluteFilePath(QStringLiteral("../info/") + item.fileName() +
                                               QStringLiteral(".trashinfo"));
}

dev_t deviceOf(const QString &path)
{
    struct stat info
    {};
    ::stat(QFile::encodeName(path).constData(), &info);
    return info.st_dev;
}

} // namespace

TEST(Trash, ItemsLandInTheRightTrashWithTheirRestoreRecord)
{
    TempHome home;
    // Without a data home the item must still go to the home trash, never beside the working directory.
    QDir(home.filePath(QStringLiteral(".local/share"))).removeRecursively();
    const QString file = home.writeFile(QStringLiteral("Dropbox/computers/old.json"), "{}");
    const QString inTrash = Trash::moveToTrash(file);
    EXPECT_EQ(inTrash, home.filePath(QStringLiteral(".local/share/Trash/files/old.json")));
    EXPECT_FALSE(QFileInfo::exists(file));
    EXPECT_TRUE(QFileInfo(restoreRecord(inTrash)).size() > 0);

    // A second item of the same name does not replace the first.
    const QString again =
        Trash::moveToTrash(home.writeFile(QStringLiteral("Dropbox/computers/old.json"), "{2}"));
    EXPECT_NE(again, inTrash);
    EXPECT_TRUE(QFileInfo::exists(inTrash));

    const QString folder = home.filePath(QStringLiteral("Dropbox/folder"));
    home.writeFile(QStringLiteral("Dropbox/folder/inner.txt"), "x");
    EXPECT_TRUE(QFileInfo::exists(Trash::moveToTrash(folder) + QStringLiteral("/inner.txt")));
    EXPECT_EQ(Trash::moveToTrash(home.filePath(QStringLiteral("missing"))), QString());

    // An item on another file system goes to a trash on that file system, and is still recoverable.
    QTemporaryDir other(QStringLiteral("/dev/shm/vandrel-trash-XXXXXX"));
    if (!other.isValid() || deviceOf(other.path()) == deviceOf(home.path()))
        GTEST_SKIP() << "no second file system at /dev/shm";
    const QString remote = other.filePath(QStringLiteral("conflicted.json"));
    QFile(remote).open(QIODevice::WriteOnly);
    const QString remoteInTrash = Trash::moveToTrash(remote);
    ASSERT_FALSE(remoteInTrash.isEmpty());
    EXPECT_FALSE(QFileInfo::exists(remote));
    EXPECT_TRUE(QFileInfo::exists(remoteInTrash));
    EXPECT_TRUE(QFileInfo(restoreRecord(remoteInTrash)).size() > 0);
    EXPECT_EQ(deviceOf(remoteInTrash), deviceOf(other.path())) << remoteInTrash.toStdString();
    QFile::remove(remoteInTrash);
    QFile::remove(restoreRecord(remoteInTrash));
}
