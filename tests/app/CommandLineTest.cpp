#include "common/TempHome.h"
#include "metadata/IndexStore.h"
#include "metadata/MetadataConfig.h"
#include "platform/SettingsKeys.h"
#include "platform/UserDefaults.h"

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

TEST(CommandLine, StatusShowsHowFarIndexingHasCome)
{
    TempHome home;
    home.writeFile(QStringLiteral("Tree/a.txt"), "alpha");
    home.writeFile(QStringLiteral("Tree/Sub/b.txt"), "beta");
    UserDefaults::setValue(SettingsKeys::IndexedRoots, QStringList{home.filePath(QStringLiteral("Tree"))});
    // Asking must not make a store the agent never made.
    EXPECT_TRUE(
        runVandrel({QStringLiteral("status")}).out.contains(QStringLiteral("Index:           not made yet")));
    EXPECT_FALSE(QFile::exists(MetadataConfig::defaultStorePath()));

    ASSERT_EQ(runVandrel({QStringLiteral("index"), QStringLiteral("rebuild")}).exitCode, 0);
    EXPECT_TRUE(
        runVandrel({QStringLiteral("index"), QStringLiteral("status")})
            .out.contains(QStringLiteral("indexing:       done (2 folders, 2 files, text of 2 files)")));

    // What an agent indexing in another process leaves in the store is read back.
    {
        const auto store = IndexStore::open(MetadataConfig::defaultStorePath());
        ASSERT_TRUE(store);
        store->setMeta(QStringLiteral("progress"),
                       QStringLiteral(R"({"crawling":true,"folders":10,"files":200,"folders_waiting":5,)"
                                      R"("contents":0,"contents_waiting":0,"seconds_left":150})"));
    }
    EXPECT_TRUE(
        runVandrel({QStringLiteral("status")})
            .out.contains(QStringLiteral("Index:           reading names: 10 folders and 200 files read, 5 "
                                         "folders waiting (at least 3 min more); contents next")));
    {
        const auto store = IndexStore::open(MetadataConfig::defaultStorePath());
        store->setMeta(QStringLiteral("progress"),
                       QStringLiteral(R"({"crawling":false,"folders":2,"files":2,"folders_waiting":0,)"
                                      R"("contents":1,"contents_waiting":7,"seconds_left":-1})"));
    }
    EXPECT_TRUE(runVandrel({QStringLiteral("index"), QStringLiteral("status")})
                    .out.contains(QStringLiteral("names done (2 folders, 2 files); reading contents: 1 files "
                                                 "read, 7 waiting\n")));
}
