#include <QProcess>

#include <gtest/gtest.h>

namespace {

struct ProcessResult
{
    int exitCode;
    QString out;
    QString err;
};

ProcessResult runVandrel(const QStringList &args)
{
    QProcess process;
    process.start(QStringLiteral(VANDREL_BINARY), args);
    process.waitForFinished(30000);
    return {process.exitCode(), QString::fromUtf8(process.readAllStandardOutput()),
            QString::fromUtf8(process.readAllStandardError())};
}

} // namespace

TEST(CommandLine, VersionHelpAndUnknownCommands)
{
    const ProcessResult version = runVandrel({QStringLiteral("--version")});
    EXPECT_EQ(version.exitCode, 0);
    EXPECT_EQ(version.out, QStringLiteral("vandrel " VANDREL_VERSION "\n"));

    const ProcessResult help = runVandrel({QStringLiteral("--help")});
    EXPECT_EQ(help.exitCode, 0);
    for (const char *face : {"--headless", "index status", "link PATH", "open URL", "password set", "status"})
        EXPECT_TRUE(help.out.contains(QLatin1String(face))) << face;

    const ProcessResult unknown = runVandrel({QStringLiteral("frobnicate")});
    EXPECT_NE(unknown.exitCode, 0);
    EXPECT_TRUE(unknown.err.contains(QStringLiteral("unknown command 'frobnicate'")));
}
