#include "common/TempHome.h"
#include "support/ls_Keychain.h"
#include "utils/ComputerInfoFile.h"
#include "utils/vd_FileUtils.h"

#include <QFileInfo>
#include <QJsonObject>
#include <QProcess>

#include <gtest/gtest.h>

namespace {

struct Outcome
{
    int exitCode;
    QString out;
    QString err;
};

Outcome vandrel(const QStringList &args, const QByteArray &input = QByteArray())
{
    QProcess process;
    process.start(QStringLiteral(VANDREL_BINARY), args);
    process.write(input);
    process.closeWriteChannel();
    process.waitForFinished(30000);
    return {process.exitCode(), QString::fromUtf8(process.readAllStandardOutput()),
            QString::fromUtf8(process.readAllStandardError())};
}

// Two Dropbox accounts (listed business first), a Google Drive folder, and sessions in the business root.
struct FabricatedHome : TempHome
{
    FabricatedHome()
    {
        qputenv("VANDREL_KEYCHAIN", "file");
        for (const char *dropbox : {"Dropbox", "Dropbox (Work)"})
            writeFile(QLatin1String(dropbox) +
                          QStringLiteral("/Apps/vandrel/data.vdldata/sessions_are_here.json"),
                      "{}");
        writeFile(
            QStringLiteral(".dropbox/info.json"),
            ("{\"business\": {\"path\": \"" + work + "\"}, \"personal\": {\"path\": \"" + personal + "\"}}")
                .toUtf8());
        writeFile(QStringLiteral("Dropbox (Work)/Apps/vandrel/data.vdldata/sessions/s1.json"), "{}");
        writeFile(QStringLiteral("Dropbox (Work)/Apps/vandrel/data.vdldata/sessions/s2.json"), "not json");
        writeFile(QStringLiteral("GDrive/.keep"), "");
    }
    const QString personal = filePath(QStringLiteral("Dropbox"));
    const QString work = filePath(QStringLiteral("Dropbox (Work)"));
    const QStringList roots{work + QStringLiteral("/Apps/vandrel"),
                            personal + QStringLiteral("/Apps/vandrel"),
                            filePath(QStringLiteral("GDrive/Apps/vandrel"))};
};

bool passwordFlagInEveryRoot(const QStringList &roots, bool expected)
{
    for (const QString &root : roots) {
        const QJsonObject record =
            vd_FileUtils::readJsonFileMutableDictionary(ComputerInfoFile::computerInfoFilePath(root));
        if (record.isEmpty() || record.contains(QStringLiteral("pword_required")) != expected)
            return false;
    }
    return true;
}

} // namespace

TEST(StorageCommands, StatusListsEveryStorageRootInOrder)
{
    FabricatedHome home;
    const Outcome status = vandrel({QStringLiteral("status")});
    EXPECT_EQ(status.exitCode, 0) << status.err.toStdString();
    EXPECT_TRUE(status.out.contains(QStringLiteral("Computer id:    ") + vd_FileUtils::getComputerUUID()))
        << status.out.toStdString();
    EXPECT_TRUE(status.out.contains(QStringLiteral("Password:       not set")));
    const QString expected = QStringLiteral("Storage folders:\n"
                                            "  %1\n      sessions: 2, computer info file: missing\n"
                                            "  %2\n      sessions: 0, computer info file: missing\n"
                                            "  %3\n      sessions: 0, computer info file: missing\n")
                                 .arg(home.roots[0], home.roots[1], home.roots[2]);
    EXPECT_TRUE(status.out.endsWith(expected)) << status.out.toStdString();

    EXPECT_EQ(vandrel({QStringLiteral("status"), QStringLiteral("extra")}).exitCode, 64);
}

TEST(StorageCommands, PasswordFromStandardInputReachesKeychainAndInfoFiles)
{
    FabricatedHome home;
    const QString key = vd_FileUtils::keyForComputerPassword();

    // Never from an argument, never empty, never overlong: each leaves everything as it was.
    EXPECT_EQ(
        vandrel({QStringLiteral("password"), QStringLiteral("set"), QStringLiteral("hunter2")}).exitCode, 64);
    EXPECT_EQ(vandrel({QStringLiteral("password"), QStringLiteral("set")}, "\n").exitCode, 1);
    EXPECT_EQ(vandrel({QStringLiteral("password"), QStringLiteral("set")}, QByteArray(5000, 'p')).exitCode,
              1);
    EXPECT_EQ(vandrel({QStringLiteral("password"), QStringLiteral("set")}, "\xff\xfe\n").exitCode, 1);
    EXPECT_EQ(ls_Keychain::stringForKey(key), std::nullopt);
    EXPECT_FALSE(QFileInfo::exists(ComputerInfoFile::computerInfoFilePath(home.roots[0])));

    const Outcome set =
        vandrel({QStringLiteral("password"), QStringLiteral("set")}, "s3cret pass\r\nignored\n");
    EXPECT_EQ(set.exitCode, 0) << set.err.toStdString();
    // This process is a running agent too: it sees the new password without a restart.
    EXPECT_EQ(ls_Keychain::stringForKey(key), QStringLiteral("s3cret pass"));
    EXPECT_TRUE(passwordFlagInEveryRoot(home.roots, true));
    EXPECT_EQ(vandrel({QStringLiteral("password"), QStringLiteral("status")}).out,
              QStringLiteral("A computer password is set.\n"));
    const Outcome status = vandrel({QStringLiteral("status")});
    EXPECT_TRUE(status.out.contains(QStringLiteral("Password:       set\n")));
    EXPECT_TRUE(status.out.contains(QStringLiteral("sessions: 2, computer info file: present")));
    EXPECT_FALSE(status.out.contains(QStringLiteral("s3cret")) ||
                 status.err.contains(QStringLiteral("s3cret")));

    EXPECT_EQ(vandrel({QStringLiteral("password"), QStringLiteral("clear")}).exitCode, 0);
    EXPECT_EQ(ls_Keychain::stringForKey(key).value_or(QStringLiteral("?")), QString());
    EXPECT_TRUE(passwordFlagInEveryRoot(home.roots, false));
    EXPECT_EQ(vandrel({QStringLiteral("password"), QStringLiteral("status")}).out,
              QStringLiteral("No computer password is set.\n"));
}
