#include "platform/SystemIdentity.h"

#include "common/TempHome.h"

#include <gtest/gtest.h>

TEST(SystemIdentity, MachineIdTakesTheFirstWellFormedSource)
{
    TempHome home;
    const QString good =
        home.writeFile(QStringLiteral("etc/machine-id"), "0123456789abcdef0123456789ABCDEF\n");
    const QString firstBoot = home.writeFile(QStringLiteral("etc/first-boot"), "uninitialized\n");
    const QString garbage = home.writeFile(QStringLiteral("etc/garbage"), QByteArray(4096, 'f'));
    const QString missing = home.filePath(QStringLiteral("etc/missing"));

    EXPECT_EQ(SystemIdentity::machineId({missing, firstBoot, garbage, good}),
              QStringLiteral("0123456789abcdef0123456789ABCDEF"));
    EXPECT_FALSE(SystemIdentity::machineId({missing, firstBoot, garbage, home.path()}));
}
