#include "app/AgentLifecycle.h"
#include "app/DPOpenAtLogin.h"
#include "common/TempHome.h"
#include "platform/SettingsKeys.h"
#include "platform/UserDefaults.h"

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>

namespace {

// An executable standing in for the installed agent, at `relative` below the home.
QString installProgram(const TempHome &home, const QString &relative)
{
    const QString path = home.filePath(relative);
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile::copy(QStringLiteral("/bin/true"), path);
    QFile::setPermissions(path, QFile::permissions(path) | QFile::ExeOwner);
    return path;
}

QStringList entries(const Autostart &list)
{
    return QDir(list.folder()).entryList({QStringLiteral("*.desktop")}, QDir::Files);
}

QString entry(const QString &exec, const QString &extra = {})
{
    return QStringLiteral("[Desktop Entry]\nType=Application\nName=X\nExec=%1\n%2").arg(exec, extra);
}

} // namespace

TEST(OpenAtLogin, AddedOnceOnTheFirstLaunchOddPathsSurviveQuotingAndRemovalTakesEveryEntryOfOursForGood)
{
    TempHome home;
    const QString program = installProgram(home, QStringLiteral("opt/vandrel/bin/vandrel"));
    const Autostart list;
    AgentLifecycle::enableOpenAtLoginOnInitialLaunch(list, program);
    EXPECT_EQ(entries(list), QStringList{QStringLiteral("vandrel.desktop")});

    // The user turns it off; later launches never bring it back.
    DPOpenAtLogin::toggleLoginItem(list, program);
    for (int launch = 0; launch < 2; ++launch)
        AgentLifecycle::enableOpenAtLoginOnInitialLaunch(list, program);
    EXPECT_TRUE(entries(list).isEmpty());

    // On another first launch, an entry present before it is kept as it is, and none is added beside it.
    UserDefaults::remove(SettingsKeys::CheckedEnableOpenAtLoginOnInitialLaunch);
    const Autostart preset(home.filePath(QStringLiteral("preset")));
    home.writeFile(QStringLiteral("preset/mine.desktop"), entry(program).toUtf8());
    AgentLifecycle::enableOpenAtLoginOnInitialLaunch(preset, program);
    EXPECT_EQ(entries(preset), QStringList{QStringLiteral("mine.desktop")});

    // A program path that needs quoting comes back whole.
    const QString odd = installProgram(home, QStringLiteral("odd \"dir\" $HOME `x` back\\slash;&/vandrel"));
    const QString written = list.addEntry(odd, {QStringLiteral("--flag with space")});
    ASSERT_FALSE(written.isEmpty());
    EXPECT_EQ(Autostart::resolvedProgram(written), odd);

    // The autostart "folder" is a file: the list cannot be opened, nothing is written.
    home.writeFile(QStringLiteral("blocked"), "not a folder");
    const Autostart blocked(home.filePath(QStringLiteral("blocked/autostart")));
    EXPECT_FALSE(blocked.open());
    EXPECT_TRUE(blocked.addEntry(program, {}).isEmpty());
    // No program path: nothing to start, so no entry.
    EXPECT_TRUE(list.addEntry(QString(), {}).isEmpty());

    // Toggled off, every entry of ours goes and nothing else does.
    installProgram(home, QStringLiteral("opt/vandrel/bin/vandrel-relay"));
    const QString link = home.filePath(QStringLiteral("bin/vandrel-link"));
    QDir().mkpath(home.filePath(QStringLiteral("bin")));
    QFile::link(program, link);
    const QString other = installProgram(home, QStringLiteral("opt/vandre/bin/other"));

    const QString dir = QStringLiteral(".config/autostart/");
    // Ours: the program itself, through a symbolic link with arguments, a program inside it by prefix, and a
    // switched-off one (present, yet not counted as on). Then what is not ours, or not readable as ours.
    const std::pair<const char *, QByteArray> files[] = {
        {"vandrel.desktop", entry(program).toUtf8()},
        {"old.desktop", entry(QStringLiteral("\"%1\" --headless").arg(link)).toUtf8()},
        {"relay.desktop", entry(program + QStringLiteral("-relay")).toUtf8()},
        {"hidden.desktop", entry(program, QStringLiteral("Hidden=true\n")).toUtf8()},
        {"other.desktop", entry(other).toUtf8()},
        {"path.desktop", entry(QStringLiteral("true")).toUtf8()},
        {"quote.desktop", entry(QStringLiteral("\"%1").arg(program)).toUtf8()},
        {"group.desktop", QStringLiteral("[Other Group]\nExec=%1\n").arg(program).toUtf8()},
        {"relative.desktop", entry(QStringLiteral("bin/vandrel-link")).toUtf8()},
        {"binary.desktop", QByteArray("\xff\xfe[Desktop Entry]\nExec=") + QByteArray(3, '\0')},
        {"huge.desktop", entry(program).toUtf8() + QByteArray(200 * 1024, 'x')}};
    for (const auto &[name, content] : files)
        home.writeFile(dir + QLatin1String(name), content);
    const qsizetype before = entries(list).size();

    EXPECT_TRUE(DPOpenAtLogin::openAtLoginEnabled(list, program));
    DPOpenAtLogin::toggleLoginItem(list, program);
    EXPECT_FALSE(DPOpenAtLogin::openAtLoginEnabled(list, program));
    const QStringList left = entries(list);
    EXPECT_EQ(left.size(), before - 4) << left.join(u' ').toStdString();
    for (const char *gone : {"vandrel.desktop", "old.desktop", "relay.desktop", "hidden.desktop"})
        EXPECT_FALSE(left.contains(QString::fromLatin1(gone))) << gone;

    // Only a switched-off entry of ours left: the program counts as not starting, a toggle adds one.
    home.writeFile(dir + QStringLiteral("hidden.desktop"),
                   entry(program, QStringLiteral("Hidden=true\n")).toUtf8());
    home.writeFile(dir + QStringLiteral("vandrel.desktop"), entry(other).toUtf8());
    DPOpenAtLogin::toggleLoginItem(list, program);
    EXPECT_TRUE(DPOpenAtLogin::openAtLoginEnabled(list, program));
    EXPECT_TRUE(entries(list).contains(QStringLiteral("vandrel-2.desktop"))); // the foreign file was kept
    EXPECT_EQ(Autostart::resolvedProgram(home.filePath(dir + QStringLiteral("vandrel.desktop"))), other);
}
