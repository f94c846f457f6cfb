#include "common/DropboxHome.h"
#include "common/VandrelCommand.h"
#include "utils/vd_FileUtils.h"

#include <QDir>
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

TEST(StatusAndPassword, FabricatedHomeShowsEveryRootAndPasswordIsTakenOnlyWholeFromStandardInput)
{
    DropboxHome home;
    home.writeFile(QStringLiteral("Dropbox/Apps/vandrel/data.vdldata/sessions/web1.json"), "{\"date\": 1}");
    QDir(home.path()).mkpath(QStringLiteral("GDrive"));

    // Which roots there are, and in what order, is the storage folders' own rule; status lists them.
    const QString before = runVandrel({QStringLiteral("status")}).out;
    EXPECT_TRUE(before.contains(home.root()) &&
                before.contains(home.filePath(QStringLiteral("GDrive/Apps/vandrel"))))
        << before.toStdString();
    EXPECT_TRUE(before.contains(QStringLiteral("1 session, computer info file missing")));
    EXPECT_TRUE(before.contains(QStringLiteral("Password:        not set")));

    EXPECT_EQ(runVandrel(kSet, "correct horse\n").exitCode, 0);
    const QString after = runVandrel({QStringLiteral("status")}).out;
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
