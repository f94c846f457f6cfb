#include "common/TempHome.h"
#include "common/VandrelCommand.h"
#include "metadata/IndexStore.h"
#include "metadata/MetadataConfig.h"
#include "platform/SettingsKeys.h"
#include "platform/UserDefaults.h"

#include <QFile>

#include <gtest/gtest.h>

TEST(CommandLine, VersionHelpAndUnknownCommands)
{
    EXPECT_EQ(runVandrel({QStringLiteral("--version")}).out, QStringLiteral("vandrel " VANDREL_VERSION "\n"));
    const QString help = runVandrel({QStringLiteral("--help")}).out;
    for (const char *command :
         {"--headless", "index status", "link PATH", "open URL", "password set", "status"})
        EXPECT_TRUE(help.contains(QLatin1String(command))) << command;
    const VandrelRun unknown = runVandrel({QStringLiteral("frobnicate")});
    EXPECT_NE(unknown.exitCode, 0);
    EXPECT_TRUE(unknown.err.contains(QStringLiteral("unknown command 'frobnicate'")));
}

TEST(CommandLine, StatusShowsHowFarIndexingHasCome)
{
    TempHome home;
    home.writeFile(QStringLiteral("Tree/a.txt"), "alpha");
    home.writeFile(QStringLiteral("Tree/Sub/b.txt"), "beta");
    UserDefaults::setValue(SettingsKeys::IndexedRoots, QStringList{home.filePath(QStringLiteral("Tree"))});
    const QStringList status{QStringLiteral("status")};
    const QStringList indexStatus{QStringLiteral("index"), QStringLiteral("status")};
    // Asking must not make a store the agent never made.
    EXPECT_TRUE(runVandrel(status).out.contains(QStringLiteral("Index:           not made yet")));
    EXPECT_FALSE(QFile::exists(MetadataConfig::defaultStorePath()));

    ASSERT_EQ(runVandrel({QStringLiteral("index"), QStringLiteral("rebuild")}).exitCode, 0);
    EXPECT_TRUE(
        runVandrel(indexStatus)
            .out.contains(QStringLiteral("indexing:       done (2 folders, 2 files, text of 2 files)")));

    // What an agent indexing in another process leaves in the store is read back.
    const std::tuple<QStringList, const char *, QString> progress[] = {
        {status,
         R"({"crawling":true,"folders":10,"files":200,"folders_waiting":5,"contents":0,"contents_waiting":0,)"
         R"("seconds_left":150})",
         QStringLiteral(
             "Index:           reading names: 10 folders and 200 files read, 5 folders waiting (at "
             "least 3 min more); contents next")},
        {indexStatus,
         R"({"crawling":false,"folders":2,"files":2,"folders_waiting":0,"contents":1,"contents_waiting":7,)"
         R"("seconds_left":-1})",
         QStringLiteral("names done (2 folders, 2 files); reading contents: 1 files read, 7 waiting\n")}};
    for (const auto &[command, json, expected] : progress) {
        IndexStore::open(MetadataConfig::defaultStorePath())
            ->setMeta(QStringLiteral("progress"), QString::fromLatin1(json));
        EXPECT_TRUE(runVandrel(command).out.contains(expected)) << json;
    }
}
