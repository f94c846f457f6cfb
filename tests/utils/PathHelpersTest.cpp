#include "utils/PathHelpers.h"

#include "common/TempHome.h"
#include "utils/vd_SimpleUtils.h"

#include <QFile>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

TEST(PathHelpers, NumberTextsDatesAndDirectories)
{
    EXPECT_EQ(DoubleToString(1.25, 2), QStringLiteral("1.2"));
    EXPECT_EQ(DoubleToString(1.0, 0), QStringLiteral("1"));
    EXPECT_EQ(DoubleToString(1e300, 2).size(), 255); // cut to the 256-byte buffer, never overflowing it

    const TempHome home;
    const QString file = home.writeFile(QStringLiteral("f"), {});
    const struct timespec times[2] = {{978307210, 0}, {978307210, 500000000}};
    ASSERT_EQ(::utimensat(AT_FDCWD, QFile::encodeName(file).constData(), times, 0), 0);
    EXPECT_DOUBLE_EQ(GetFileModificationDateSecondsSince2000(file), 10.5);
    EXPECT_EQ(GetFileModificationDate(file).toMSecsSinceEpoch(), 978307210500);
    const QString missing = home.filePath(QStringLiteral("missing"));
    EXPECT_DOUBLE_EQ(GetFileModificationDateSecondsSince2000(missing), -3061152000.0);

    // The date is the link's own, not its target's; the directory test follows links.
    const QString link = home.filePath(QStringLiteral("link"));
    ASSERT_TRUE(QFile::link(home.path(), link));
    EXPECT_GT(GetFileModificationDateSecondsSince2000(link), 100.0);
    EXPECT_TRUE(IsDirectory(link));
    EXPECT_FALSE(IsDirectory(file));
    EXPECT_FALSE(IsDirectory(missing));
    EXPECT_FALSE(IsDirectory(QString()));
}

TEST(SimpleUtils, ComputerNameFromMachineInfo)
{
    const TempHome home;
    const QString file = home.writeFile(QStringLiteral("machine-info"),
                                        "CHASSIS=laptop\nPRETTY_HOSTNAME=\"Ada's \\\"Laptop\\\"\"\n");
    EXPECT_EQ(vd_SimpleUtils::computerName(file), QStringLiteral("Ada's \"Laptop\""));
}
