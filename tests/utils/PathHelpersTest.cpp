#include "utils/PathHelpers.h"

#include "utils/vd_SimpleUtils.h"

#include <QFile>
#include <QTemporaryDir>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

TEST(PathHelpers, NumberTexts)
{
    EXPECT_EQ(IntToString(-5), QStringLiteral("-5"));
    EXPECT_EQ(IntToString(0), QStringLiteral("0"));
    EXPECT_EQ(IntToString(2014), QStringLiteral("2014"));
    EXPECT_EQ(DoubleToString(1.25, 2), QStringLiteral("1.2"));
    EXPECT_EQ(DoubleToString(2.36, 2), QStringLiteral("2.4"));
    EXPECT_EQ(DoubleToString(1.0, 1), QStringLiteral("1"));
    EXPECT_EQ(DoubleToString(1.0, 0), QStringLiteral("1"));
    EXPECT_EQ(DoubleToString(3.14159, 4), QStringLiteral("3.142"));
    EXPECT_EQ(DoubleToString(1e300, 2).size(), 255); // cut to the 256-byte buffer, never overflowing it
}

TEST(PathHelpers, ModificationDatesAndDirectories)
{
    QTemporaryDir dir;
    const QString file = dir.filePath(QStringLiteral("f"));
    QFile(file).open(QIODevice::WriteOnly);
    const struct timespec times[2] = {{978307210, 0}, {978307210, 500000000}};
    ASSERT_EQ(::utimensat(AT_FDCWD, QFile::encodeName(file).constData(), times, 0), 0);
    EXPECT_DOUBLE_EQ(GetFileModificationDateSecondsSince2000(file), 10.5);
    EXPECT_EQ(GetFileModificationDate(file).toMSecsSinceEpoch(), 978307210500);

    const QString missing = dir.filePath(QStringLiteral("missing"));
    EXPECT_DOUBLE_EQ(GetFileModificationDateSecondsSince2000(missing), -3061152000.0);
    EXPECT_EQ(GetFileModificationDate(missing).date(), QDate(1904, 1, 1));

    // The date is the link's own, not its target's; the directory test follows links.
    const QString link = dir.filePath(QStringLiteral("link"));
    ASSERT_TRUE(QFile::link(dir.path(), link));
    EXPECT_GT(GetFileModificationDateSecondsSince2000(link), 100.0);
    EXPECT_TRUE(IsDirectory(link));
    EXPECT_TRUE(IsDirectory(dir.path()));
    EXPECT_FALSE(IsDirectory(file));
    EXPECT_FALSE(IsDirectory(missing));
    EXPECT_FALSE(IsDirectory(QString()));
}

TEST(SimpleUtils, TimeSplitTruncatesAndSkipsMissingOutputs)
{
    const QDateTime lastSecond(QDate(2014, 3, 31), QTime(23, 59, 59, 900), Qt::LocalTime);
    qint32 year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    vd_SimpleUtils::time(lastSecond, &year, &month, &day, &hour, &minute, &second);
    EXPECT_EQ(QList<qint32>({year, month, day, hour, minute, second}),
              QList<qint32>({2014, 3, 31, 23, 59, 59}));
    qint32 onlyMonth = 0;
    vd_SimpleUtils::time(lastSecond, nullptr, &onlyMonth, nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ(onlyMonth, 3);
}

TEST(SimpleUtils, ComputerNameAndDigests)
{
    QTemporaryDir dir;
    const QString info = dir.filePath(QStringLiteral("machine-info"));
    QFile file(info);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("CHASSIS=laptop\nPRETTY_HOSTNAME=\"Ada's \\\"Laptop\\\"\"\n");
    file.close();
    EXPECT_EQ(vd_SimpleUtils::computerName(info), QStringLiteral("Ada's \"Laptop\""));

    EXPECT_EQ(vd_SimpleUtils::sha256Hex(QStringLiteral("abc")),
              QStringLiteral("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"));
    EXPECT_EQ(vd_SimpleUtils::sha256Hex(QStringLiteral("abc") + QChar(0) + QStringLiteral("def")),
              vd_SimpleUtils::sha256Hex(QStringLiteral("abc")));
}
