#include "common/TempHome.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QSettings>
#include <QTest>

#include <gtest/gtest.h>

namespace {

// Runs the real program in the temporary home until its log shows `awaited`, then ends it with SIGTERM.
// Answers everything it logged.
QString runUntilLogged(const TempHome &home, const QStringList &args, const QString &awaited)
{
    QProcess process;
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    environment.insert(QStringLiteral("VANDREL_KEYCHAIN"), QStringLiteral("file"));
    environment.insert(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"),
                       QStringLiteral("unix:path=/nonexistent/bus"));
    // Should the platform hand pages to xdg-open, no browser starts.
    environment.insert(QStringLiteral("PATH"), home.filePath(QStringLiteral("bin")) + u':' +
                                                   environment.value(QStringLiteral("PATH")));
    environment.insert(QStringLiteral("BROWSER"), home.filePath(QStringLiteral("bin/xdg-open")));
    process.setProcessEnvironment(environment);
    process.setWorkingDirectory(home.path());
    process.start(QStringLiteral(VANDREL_BINARY), args);
    QString log;
    const bool seen = QTest::qWaitFor(
        [&] {
            log += QString::fromUtf8(process.readAllStandardError());
            return log.contains(awaited) || process.state() == QProcess::NotRunning;
        },
        60000);
    process.terminate();
    if (!process.waitForFinished(30000))
        process.kill();
    log += QString::fromUtf8(process.readAllStandardError());
    EXPECT_TRUE(seen && log.contains(awaited)) << log.toStdString();
    return log;
}

} // namespace

TEST(Faces, HeadlessAndDesktopShareTheLaunchSequence)
{
    TempHome home;
    QSettings settings(home.filePath(QStringLiteral(".config/vandrel/vandrel.conf")), QSettings::IniFormat);
    settings.setValue(QStringLiteral("WebSiteURL"), QStringLiteral("https://vandrel.test"));
    settings.sync();
    home.writeFile(QStringLiteral("bin/xdg-open"), "#!/bin/sh\nexit 0\n");
    QFile::setPermissions(home.filePath(QStringLiteral("bin/xdg-open")), QFile::ReadOwner | QFile::ExeOwner);
    const QString welcome = QStringLiteral("opening https://vandrel.test/welcome/");

    // Without a screen the welcome page is a log line, and no autostart entry is made: the systemd user
    // unit starts this face.
    const QString headless = runUntilLogged(home, {QStringLiteral("--headless")}, welcome);
    EXPECT_TRUE(headless.contains(QStringLiteral("vandrel running headless")));
    EXPECT_FALSE(QDir(home.filePath(QStringLiteral(".config/autostart"))).exists());

    // The desktop face on a platform without a tray: the window, the same welcome page (no browser here),
    // and the autostart entry that starts this very program.
    const QString desktop = runUntilLogged(home, {}, welcome);
    EXPECT_TRUE(desktop.contains(QStringLiteral("no system tray is available"))) << desktop.toStdString();
    QFile entry(home.filePath(QStringLiteral(".config/autostart/vandrel.desktop")));
    ASSERT_TRUE(entry.open(QIODevice::ReadOnly));
    EXPECT_TRUE(entry.readAll().contains(
        "\nExec=" + QFileInfo(QStringLiteral(VANDREL_BINARY)).canonicalFilePath().toUtf8() + "\n"));

    settings.sync();
    EXPECT_EQ(settings.value(QStringLiteral("vn_launch_count")).toInt(), 2);
    EXPECT_TRUE(settings.value(QStringLiteral("CheckedEnableOpenAtLoginOnInitialLaunch")).toBool());
}
