#include "platform/Trash.h"

#include "common/TempHome.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

QByteArray restoreRecord(const QString &inTrash)
{
    const QFileInfo item(inTrash);
    QFile record(QFileInfo(item.absolutePath()).absolutePath() + QStringLiteral("/info/") + item.fileName() +
                 QStringLiteral(".trashinfo"));
    return record.open(QIODevice::ReadOnly) ? record.readAll() : QByteArray();
}

QByteArray contentOf(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

TEST(Trash, ItemsLandInTheHomeTrashWithRestoreRecordsEvenWithoutADataHome)
{
    TempHome home;
    const QString dataHome = home.filePath(QStringLiteral(".local/share"));
    ASSERT_TRUE(QDir(dataHome).removeRecursively());
    const QString trashFiles = dataHome + QStringLiteral("/Trash/files/");

    const QString first = home.writeFile(QStringLiteral("Dropbox/a/conflict.json"), "first");
    const QString second = home.writeFile(QStringLiteral("Dropbox/b/conflict.json"), "second");
    home.writeFile(QStringLiteral("Dropbox/folder.json/inside.txt"), "inside");
    const std::optional<QString> firstInTrash = Trash::moveToTrash(first);
    const std::optional<QString> secondInTrash = Trash::moveToTrash(second);
    const std::optional<QString> folderInTrash =
        Trash::moveToTrash(home.filePath(QStringLiteral("Dropbox/folder.json")));
    ASSERT_TRUE(firstInTrash && secondInTrash && folderInTrash);

    // Same names never overwrite each other in the trash.
    EXPECT_NE(*firstInTrash, *secondInTrash);
    EXPECT_EQ(contentOf(*firstInTrash), "first");
    EXPECT_EQ(contentOf(*secondInTrash), "second");
    EXPECT_EQ(contentOf(*folderInTrash + QStringLiteral("/inside.txt")), "inside");
    for (const QString &inTrash : {*firstInTrash, *secondInTrash, *folderInTrash})
        EXPECT_TRUE(inTrash.startsWith(trashFiles)) << inTrash.toStdString();
    EXPECT_TRUE(restoreRecord(*firstInTrash).contains("Path=" + QFile::encodeName(first)));
    EXPECT_TRUE(restoreRecord(*folderInTrash).contains("DeletionDate="));
    EXPECT_FALSE(QFileInfo::exists(first));
    EXPECT_FALSE(QFileInfo::exists(QDir::current().filePath(QStringLiteral("files/conflict.json"))));

    EXPECT_FALSE(Trash::moveToTrash(home.filePath(QStringLiteral("Dropbox/missing.json"))));
}

TEST(Trash, ALinkMovesAsTheLinkAndItsTargetStays)
{
    TempHome home;
    home.writeFile(QStringLiteral("precious/keep.txt"), "keep");
    const QString link = home.filePath(QStringLiteral("sessions/d.json"));
    QDir().mkpath(QFileInfo(link).absolutePath());
    ASSERT_TRUE(QFile::link(home.filePath(QStringLiteral("precious")), link));

    const std::optional<QString> inTrash = Trash::moveToTrash(link);
    ASSERT_TRUE(inTrash);
    EXPECT_TRUE(QFileInfo(*inTrash).isSymLink());
    EXPECT_EQ(contentOf(home.filePath(QStringLiteral("precious/keep.txt"))), "keep");
}

TEST(Trash, ItemsOnAnotherFileSystemGoToThatFileSystemsTrash)
{
    TempHome home;
    QTemporaryDir elsewhere(QStringLiteral("/dev/shm/vandrel-trash-XXXXXX"));
    struct stat homeStat
    {};
    struct stat otherStat
    {};
    if (!elsewhere.isValid() || ::stat(QFile::encodeName(home.path()).constData(), &homeStat) != 0 ||
        ::stat(QFile::encodeName(elsewhere.path()).constData(), &otherStat) != 0 ||
        homeStat.st_dev == otherStat.st_dev)
        GTEST_SKIP() << "no second file system at /dev/shm";

    const QString item = elsewhere.filePath(QStringLiteral("old-computer.json"));
    {
        QFile file(item);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write("{}");
    }
    const std::optional<QString> inTrash = Trash::moveToTrash(item);
    ASSERT_TRUE(inTrash);
    const QString ownTrash = QStringLiteral("/dev/shm/.Trash-%1/files/").arg(::getuid());
    EXPECT_TRUE(inTrash->startsWith(ownTrash)) << inTrash->toStdString();
    EXPECT_EQ(contentOf(*inTrash), "{}");
    EXPECT_TRUE(restoreRecord(*inTrash).contains("Path="));

    // The test's own item, not the product's: leave the shared trash as it was.
    const QFileInfo moved(*inTrash);
    QFile::remove(QFileInfo(moved.absolutePath()).absolutePath() + QStringLiteral("/info/") +
                  moved.fileName() + QStringLiteral(".trashinfo"));
    QFile::remove(*inTrash);
}
