#include "common/TempHome.h"
#include "handlers/FileOperations.h"

#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QProcess>
#include <QRandomGenerator>
#include <QTemporaryDir>

#include <gtest/gtest.h>
#include <sys/stat.h>

using namespace Qt::StringLiterals;

namespace {

dev_t deviceOf(const QString &path)
{
    struct stat info
    {};
    ::stat(QFile::encodeName(path).constData(), &info);
    return info.st_dev;
}

// The item's files, or the file itself, with their content digests, for checking that nothing changed.
std::map<QString, QByteArray> snapshot(const QString &item)
{
    std::map<QString, QByteArray> files;
    const auto add = [&](const QString &path) {
        files[path.mid(item.size())] = QCryptographicHash::hash(readFile(path), QCryptographicHash::Sha256);
    };
    if (QFileInfo(item).isFile())
        add(item);
    for (QDirIterator it(item, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories); it.hasNext();)
        add(it.next());
    return files;
}

QStringList entriesOf(const QString &folder)
{
    return QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
}

QByteArray randomBytes(qint64 size, QRandomGenerator &random)
{
    QByteArray bytes(size, '\0');
    random.fillRange(reinterpret_cast<quint32 *>(bytes.data()), size / 4);
    return bytes;
}

} // namespace

TEST(MoveFaults, InterruptedCrossFileSystemMovesNeverLoseAByte)
{
    TempHome home;
    QTemporaryDir other(u"/dev/shm/vandrel-move-XXXXXX"_s);
    if (!other.isValid() || deviceOf(other.path()) == deviceOf(home.path()))
        GTEST_SKIP() << "no second file system at /dev/shm";
    QRandomGenerator random(20261123);
    int interrupted = 0;
    int completed = 0;
    for (int round = 0; interrupted < 200 && round < 400; ++round) {
        // A single file or a small folder tree, with sizes that cross the copy's chunk boundaries.
        const QString source = home.filePath(u"src/item%1"_s.arg(round));
        if (random.bounded(2) == 1) {
            for (int f = 0, files = 1 + int(random.bounded(4)); f < files; ++f)
                home.writeFile(u"src/item%1/d%2/f%3.bin"_s.arg(round).arg(f % 2).arg(f),
                               randomBytes(random.bounded(1500000), random));
        } else {
            home.writeFile(u"src/item%1"_s.arg(round), randomBytes(random.bounded(2500000), random));
        }
        const auto before = snapshot(source);
        const QString destination = other.filePath(u"item%1"_s.arg(round));
        // Every copy checks in at least twice, so 0 and 1 always interrupt; one move in eight runs through.
        const int failAt = random.bounded(8) == 0 ? -1 : int(random.bounded(2 + random.bounded(3)));
        int checks = 0;
        const FileOperations::Failure failure = FileOperations::moveItem(
            source, destination, [&](const QString &, qint64) { return failAt < 0 || checks++ < failAt; });

        if (failure) {
            ++interrupted;
            EXPECT_FALSE(QFileInfo::exists(destination)) << round;
            EXPECT_EQ(snapshot(source), before) << round;
        } else {
            ++completed;
            EXPECT_FALSE(QFileInfo::exists(source)) << round;
            EXPECT_EQ(snapshot(destination), before) << round;
        }
        // No temporary leftovers beside the items that arrived.
        for (const QString &name : entriesOf(other.path()))
            EXPECT_FALSE(name.startsWith(u'.')) << name.toStdString();
        QDir(home.filePath(u"src"_s)).removeRecursively();
    }
    EXPECT_EQ(interrupted, 200);
    EXPECT_GT(completed, 0);
}

TEST(MoveFaults, FullDestinationFileSystemKeepsTheSourceWhole)
{
    TempHome home;
    const QString mountPoint = home.filePath(u"small"_s);
    QDir().mkpath(mountPoint);
    const int mounted =
        QProcess::execute(u"mount"_s, {u"-t"_s, u"tmpfs"_s, u"-o"_s, u"size=1m"_s, u"tmpfs"_s, mountPoint});
    if (mounted != 0 || deviceOf(mountPoint) == deviceOf(home.path()))
        GTEST_SKIP() << "cannot mount a small file system here (needs root)";

    QRandomGenerator random(7);
    const QString source = home.writeFile(u"Dropbox/big.bin"_s, randomBytes(3 * 1024 * 1024, random));
    const auto before = snapshot(home.filePath(u"Dropbox"_s));
    const FileOperations::Failure failure = FileOperations::moveItem(source, mountPoint + u"/big.bin"_s);
    ASSERT_TRUE(failure.has_value());
    EXPECT_TRUE(failure->contains(u"No space left on device"_s)) << failure->toStdString();
    EXPECT_EQ(snapshot(home.filePath(u"Dropbox"_s)), before);
    EXPECT_TRUE(entriesOf(mountPoint).isEmpty()) << entriesOf(mountPoint).join(u',').toStdString();

    QProcess::execute(u"umount"_s, {mountPoint});
}
