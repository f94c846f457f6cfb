#include "common/TempHome.h"

#include <QDir>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>

#include <gtest/gtest.h>

namespace {

QString runVandrel(const QStringList &args, const QByteArray &input = {}, int *exitCode = nullptr)
{
    QProcess process;
    process.start(QStringLiteral(VANDREL_BINARY), args);
    process.write(input);
    process.closeWriteChannel();
    process.waitForFinished(30000);
    if (exitCode)
        *exitCode = process.exitCode();
    return QString::fromUtf8(process.readAllStandardOutput());
}

QJsonObject onlyComputerFile(const QString &root)
{
    const QDir computers(root + QStringLiteral("/data.vdldata/computers"));
    const QStringList files = computers.entryList(QDir::Files);
    if (files.size() != 1)
        return {};
    QFile file(computers.filePath(files.first()));
    file.open(QIODevice::ReadOnly);
    return QJsonDocument::fromJson(file.readAll()).object();
}

} // namespace

TEST(StatusAndPassword, FabricatedHomeShowsEveryRootAndPasswordFollowsStandardInput)
{
    TempHome home;
    qputenv("VANDREL_KEYCHAIN", "file");
    for (const char *root : {"Dropbox (Work)/Apps/vandrel", "Dropbox/Apps/vandrel"})
        home.writeFile(QString::fromUtf8(root) + QStringLiteral("/data.vdldata/sessions_are_here.json"),
                       "{}");
    home.writeFile(QStringLiteral("Dropbox/Apps/vandrel/data.vdldata/sessions/web1.json"), "{\"date\": 1}");
    QDir(home.path()).mkpath(QStringLiteral("GDrive"));
    home.writeFile(
        QStringLiteral(".dropbox/info.json"),
        QStringLiteral(
            "{\"business\": {\"path\": \"%1/Dropbox (Work)\"}, \"personal\": {\"path\": \"%1/Dropbox\"}}")
            .arg(home.path())
            .toUtf8());

    const QString before = runVandrel({QStringLiteral("status")});
    const qsizetype work = before.indexOf(home.filePath(QStringLiteral("Dropbox (Work)/Apps/vandrel")));
    const qsizetype personal = before.indexOf(home.filePath(QStringLiteral("Dropbox/Apps/vandrel")));
    const qsizetype drive = before.indexOf(home.filePath(QStringLiteral("GDrive/Apps/vandrel")));
    EXPECT_TRUE(work > 0 && work < personal && personal < drive) << before.toStdString();
    EXPECT_TRUE(before.contains(QStringLiteral("1 session, computer info file missing")));
    EXPECT_TRUE(before.contains(QStringLiteral("Password:        not set")));

    int exitCode = -1;
    runVandrel({QStringLiteral("password"), QStringLiteral("set")}, "correct horse\n", &exitCode);
    EXPECT_EQ(exitCode, 0);
    const QString after = runVandrel({QStringLiteral("status")});
    EXPECT_TRUE(after.contains(QStringLiteral("Password:        set")));
    EXPECT_FALSE(after.contains(QStringLiteral("correct horse")));
    EXPECT_EQ(after.count(QStringLiteral("computer info file present")), 3);
    EXPECT_EQ(onlyComputerFile(home.filePath(QStringLiteral("Dropbox/Apps/vandrel")))
                  .value(QStringLiteral("pword_required")),
              QJsonValue(true));

    runVandrel({QStringLiteral("password"), QStringLiteral("set")}, "", &exitCode);
    EXPECT_NE(exitCode, 0); // nothing typed: refused, the old password stays
    EXPECT_TRUE(runVandrel({QStringLiteral("password"), QStringLiteral("status")})
                    .startsWith(QStringLiteral("A computer password is set")));

    runVandrel({QStringLiteral("password"), QStringLiteral("clear")});
    EXPECT_FALSE(onlyComputerFile(home.filePath(QStringLiteral("GDrive/Apps/vandrel")))
                     .contains(QStringLiteral("pword_required")));
    runVandrel({QStringLiteral("password"), QStringLiteral("secret")}, {}, &exitCode);
    EXPECT_EQ(exitCode, 64);
}

TEST(StatusAndPassword, InputThatWouldNotBeThePasswordTypedIsRefused)
{
    TempHome home;
    qputenv("VANDREL_KEYCHAIN", "file");
    const QStringList set{QStringLiteral("password"), QStringLiteral("set")};
    int exitCode = -1;
    runVandrel({QStringLiteral("password"), QStringLiteral("set"), QStringLiteral("hunter2")}, {}, &exitCode);
    EXPECT_EQ(exitCode, 64); // never from an argument

    // Cut to a limit or decoded with replacement characters, the stored text would lock the user out.
    for (const QByteArray &input : {QByteArray(5000, 'p'), QByteArray(1025, 'p') + '\n',
                                    QByteArray("caf\xe9\n"), QByteArray("a\0b\n", 4)}) {
        runVandrel(set, input, &exitCode);
        EXPECT_EQ(exitCode, 1) << input.left(8).toHex().toStdString();
        EXPECT_TRUE(runVandrel({QStringLiteral("password"), QStringLiteral("status")})
                        .startsWith(QStringLiteral("No computer password is set (store: the file ")));
    }

    runVandrel(set, QByteArray(1024, 'p') + "\r\n", &exitCode);
    EXPECT_EQ(exitCode, 0);
    runVandrel(set, "caf\xc3\xa9 \xe2\x9c\x93\n", &exitCode);
    EXPECT_EQ(exitCode, 0);
    EXPECT_TRUE(runVandrel({QStringLiteral("password"), QStringLiteral("status")})
                    .startsWith(QStringLiteral("A computer password is set")));
}

// With no pretty name and an empty host name the computer is called what the WebApp expects.
TEST(StatusAndPassword, AComputerWithoutANameIsYourMac)
{
    TempHome home;
    qputenv("VANDREL_KEYCHAIN", "file");
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
