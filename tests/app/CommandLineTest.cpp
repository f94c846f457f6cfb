#include "common/DropboxHome.h"
#include "common/VandrelCommand.h"
#include "metadata/IndexStore.h"
#include "metadata/MetadataConfig.h"
#include "platform/SettingsKeys.h"
#include "platform/UserDefaults.h"
#include "utils/vd_FileUtils.h"

#include <QDir>
#include <QFile>
#include <QJsonObject>

#include <gtest/gtest.h>

namespace {

const QStringList kSet{QStringLiteral("password"), QStringLiteral("set")};

QString passwordStatus()
{
    return runVandrel({QStringLiteral("password"), QStringLiteral("status")}).out;
}

QJsonObject onlyComputerFile(const QString &root)
{
    const QDir computers(root + QStringLiteral("/data.vdldata/computers"));
    const QStringList files = computers.entryList(QDir::Files);
    return files.size() == 1 ? vd_FileUtils::readJsonFileMutableDictionary(computers.filePath(files.first()))
                             : QJsonObject();
}

} // namespace

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

TEST(StatusAndPassword, FabricatedHomeShowsRootsIndexingAndPasswordTakenOnlyWholeFromStandardInput)
{
    DropboxHome home;
    home.writeFile(QStringLiteral("Dropbox/Apps/vandrel/data.vdldata/sessions/web1.json"), "{\"date\": 1}");
    QDir(home.path()).mkpath(QStringLiteral("GDrive"));
    home.writeFile(QStringLiteral("Tree/a.txt"), "alpha");
    home.writeFile(QStringLiteral("Tree/Sub/b.txt"), "beta");
    UserDefaults::setValue(SettingsKeys::IndexedRoots, QStringList{home.filePath(QStringLiteral("Tree"))});
    const QStringList status{QStringLiteral("status")};
    const QStringList indexStatus{QStringLiteral("index"), QStringLiteral("status")};

    // Which roots there are, and in what order, is the storage folders' own rule; status lists them.
    const QString before = runVandrel(status).out;
    EXPECT_TRUE(before.contains(home.root()) &&
                before.contains(home.filePath(QStringLiteral("GDrive/Apps/vandrel"))))
        << before.toStdString();
    EXPECT_TRUE(before.contains(QStringLiteral("1 session, computer info file missing")));
    EXPECT_TRUE(before.contains(QStringLiteral("Password:        not set")));
    // Asking must not make a store the agent never made.
    EXPECT_TRUE(before.contains(QStringLiteral("Index:           not made yet")));
    EXPECT_FALSE(QFile::exists(MetadataConfig::defaultStorePath()));

    EXPECT_EQ(runVandrel(kSet, "correct horse\n").exitCode, 0);
    const QString after = runVandrel(status).out;
    EXPECT_TRUE(after.contains(QStringLiteral("Password:        set")));
    EXPECT_FALSE(after.contains(QStringLiteral("correct horse")));
    EXPECT_EQ(after.count(QStringLiteral("computer info file present")), 2);
    EXPECT_EQ(onlyComputerFile(home.root()).value(QStringLiteral("pword_required")), QJsonValue(true));

    EXPECT_NE(runVandrel(kSet).exitCode, 0); // nothing typed: refused, the old password stays
    EXPECT_TRUE(passwordStatus().startsWith(QStringLiteral("A computer password is set")));
    runVandrel({QStringLiteral("password"), QStringLiteral("clear")});
    EXPECT_FALSE(onlyComputerFile(home.filePath(QStringLiteral("GDrive/Apps/vandrel")))
                     .contains(QStringLiteral("pword_required")));
    EXPECT_EQ(runVandrel({QStringLiteral("password"), QStringLiteral("secret")}).exitCode, 64);

    // Never from an argument. Cut to a limit or decoded with replacement characters, the stored text would
    // lock the user out.
    EXPECT_EQ(runVandrel(kSet + QStringList{QStringLiteral("hunter2")}).exitCode, 64);
    for (const QByteArray &input : {QByteArray(5000, 'p'), QByteArray(1025, 'p') + '\n',
                                    QByteArray("caf\xe9\n"), QByteArray("a\0b\n", 4)}) {
        EXPECT_EQ(runVandrel(kSet, input).exitCode, 1) << input.left(8).toHex().toStdString();
        EXPECT_TRUE(
            passwordStatus().startsWith(QStringLiteral("No computer password is set (store: the file ")));
    }
    EXPECT_EQ(runVandrel(kSet, QByteArray(1024, 'p') + "\r\n").exitCode, 0);
    EXPECT_EQ(runVandrel(kSet, "caf\xc3\xa9 \xe2\x9c\x93\n").exitCode, 0);
    EXPECT_TRUE(passwordStatus().startsWith(QStringLiteral("A computer password is set")));

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

// With no pretty name and an empty host name the computer is called what the WebApp expects.
TEST(StatusAndPassword, AComputerWithoutANameIsYourMac)
{
    DropboxHome home;
    QProcess process;
    // A private host name, set empty, for the agent alone.
    process.start(QStringLiteral("unshare"),
                  {QStringLiteral("-r"), QStringLiteral("-u"), QStringLiteral("/usr/bin/python3"),
                   QStringLiteral("-c"),
                   QStringLiteral("import os, socket, sys; socket.sethostname(''); os.execv(sys.argv[1], "
                                  "[sys.argv[1], 'status'])"),
                   QStringLiteral(VANDREL_BINARY)});
    ASSERT_TRUE(process.waitForFinished(30000));
    EXPECT_TRUE(process.readAllStandardOutput().contains("Computer name:   Your Mac\n"))
        << process.readAllStandardError().toStdString();
}
