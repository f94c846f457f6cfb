#include "platform/Trash.h"

#include "common/TempHome.h"

#include <QDir>
#include <QFileInfo>
#include <QTemporaryDir>

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>

#include <memory>

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

TEST(Trash, AnItemWhoseRestoreRecordCannotBeWrittenStaysWhereItWas)
{
    TempHome home;
    QTemporaryDir mountPoint;
    const QByteArray target = QFile::encodeName(mountPoint.path());
    // A private, full, tiny file system for this test thread only (root in CI; skipped elsewhere).
    if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("tmpfs", target.constData(), "tmpfs", 0, "size=64k") != 0)
        GTEST_SKIP() << "cannot mount a small file system here";
    const std::unique_ptr<const char, void (*)(const char *)> unmount(
        target.constData(), [](const char *where) { ::umount2(where, MNT_DETACH); });

    const QByteArray record = "{\"computer_name\": \"Desk\"}";
    const QString item = mountPoint.filePath(QStringLiteral("computer.json"));
    QFile file(item);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly) && file.write(record) == record.size());
    file.close();
    QFile filler(mountPoint.filePath(QStringLiteral("filler")));
    ASSERT_TRUE(filler.open(QIODevice::WriteOnly));
    while (filler.write(QByteArray(4096, 'f')) == 4096 && filler.flush()) {
    }
    filler.close();

    EXPECT_EQ(Trash::moveToTrash(item), QString());
    EXPECT_EQ(readFile(item), record);
}
