#include "app/desktop/DropboxNotice.h"
#include "app/desktop/PreferencesWindow.h"
#include "app/desktop/StatusIcons.h"
#include "app/desktop/vd_AppDelegate.h"
#include "common/DropboxHome.h"
#include "links/qlk_Schema.h"
#include "platform/SettingsKeys.h"
#include "platform/UserDefaults.h"
#include "support/ls_Keychain.h"
#include "utils/vd_FileUtils.h"

#include <QAction>
#include <QApplication>
#include <QClipboard>
#include <QDir>
#include <QDropEvent>
#include <QFile>
#include <QImage>
#include <QJsonObject>
#include <QLabel>
#include <QLineEdit>
#include <QMainWindow>
#include <QMenu>
#include <QMimeData>
#include <QPainter>
#include <QScreen>
#include <QSet>
#include <QSystemTrayIcon>
#include <QTest>

#include <gtest/gtest.h>

namespace {

using namespace std::chrono_literals;

// A temporary home with two StorageRoots (Dropbox and Google Drive), the file keychain and a program
// standing in for the installed agent.
struct DesktopHome
{
    DropboxHome home;
    QString dropboxRoot = home.root();
    QString driveRoot = home.filePath(QStringLiteral("GDrive/Apps/vandrel"));
    QString program = home.filePath(QStringLiteral("bin/vandrel"));
    QList<QUrl> opened;

    DesktopHome()
    {
        // The system's applications folders, as far as the agent can tell.
        home.setEnvironment("XDG_DATA_DIRS", QFile::encodeName(home.filePath(QStringLiteral("system"))));
        QDir(home.path()).mkpath(QStringLiteral("GDrive"));
        QDir(home.path()).mkpath(QStringLiteral("bin"));
        QFile::copy(QStringLiteral("/bin/true"), program);
    }

    vd_AppDelegate::Options options()
    {
        LifecycleTimes times;
        times.statusEvery = 100ms;
        times.statusOnce = {20ms};
        times.welcomePause = 10ms;
        times.dropboxCheck = 1h;
        return {times, [this](const QUrl &url) { opened << url; }, Autostart(), program};
    }

    static QJsonObject info(const QString &root)
    {
        return vd_FileUtils::readJsonFileMutableDictionary(root + QStringLiteral("/data.vdldata/computers/") +
                                                           vd_FileUtils::getComputerUUID() +
                                                           QStringLiteral(".json"));
    }
};

QAction *action(QMenu *menu, const QString &text)
{
    for (QAction *candidate : menu->actions())
        if (candidate->text() == text)
            return candidate;
    return nullptr;
}

// What the X server shows in the widget's frame, read back from the screen rather than rendered from the
// widget, so the picture is what a user would see.
QImage fromScreen(QWidget *widget)
{
    QScreen *screen = widget->screen();
    const QRect frame = widget->frameGeometry();
    return screen->grabWindow(0, frame.x(), frame.y(), frame.width(), frame.height()).toImage();
}

int distinctColours(const QImage &image)
{
    QSet<QRgb> colours;
    for (int y = 0; y < image.height(); y += 2)
        for (int x = 0; x < image.width(); x += 2)
            colours.insert(image.pixel(x, y));
    return int(colours.size());
}

void save(const QImage &image, const QString &name)
{
    QDir().mkpath(QStringLiteral(SCREENSHOT_DIR));
    EXPECT_TRUE(image.save(QStringLiteral(SCREENSHOT_DIR "/") + name)) << name.toStdString();
}

} // namespace

TEST(DesktopFace, StartsInTheWindowWithoutATrayShowsTheStatusAndTakesDroppedFiles)
{
    DesktopHome desktop;
    vd_AppDelegate::Options options = desktop.options();
    options.times.dropboxCheck = 10ms;
    options.times.dropboxNoticeDelay = 10ms;
    options.times.dropboxNoticeShown = 200ms;
    vd_AppDelegate delegate(nullptr, options);
    QWidget *notice = delegate.dropboxNotRunningPanel();
    EXPECT_FALSE(notice->isVisible());
    bool finished = false;
    QObject::connect(&delegate, &vd_AppDelegate::launchFinished, [&] { finished = true; });
    delegate.applicationDidFinishLaunching();

    // Dropbox is not running here: the notice comes up above other windows and goes again.
    ASSERT_TRUE(QTest::qWaitFor([&] { return notice->isVisible(); }, 10000));
    EXPECT_TRUE(notice->windowFlags().testFlag(Qt::WindowStaysOnTopHint));
    EXPECT_TRUE(QTest::qWaitFor([&] { return !notice->isVisible(); }, 10000));

    ASSERT_FALSE(QSystemTrayIcon::isSystemTrayAvailable()); // the offscreen platform has no tray
    EXPECT_FALSE(delegate.inTray());
    EXPECT_TRUE(delegate.window()->isVisible());
    // Choosing the tray where there is none keeps the window, and remembers the choice.
    delegate.runInMenubar();
    EXPECT_TRUE(delegate.window()->isVisible());
    EXPECT_TRUE(UserDefaults::contains(SettingsKeys::RunInDock) &&
                !UserDefaults::boolValue(SettingsKeys::RunInDock));

    // Run from where it was built, the program adds itself to the user's application menu as the handler
    // of its links.
    const QString applications = desktop.home.filePath(QStringLiteral(".local/share/applications/"));
    EXPECT_TRUE(readFile(applications + QStringLiteral("vandrel.desktop"))
                    .contains("\nExec=" + QFile::encodeName(desktop.program) + " %F\n"));
    const QByteArray linkEntryText = readFile(applications + QStringLiteral("vandrel-link-handler.desktop"));
    EXPECT_TRUE(linkEntryText.contains("\nExec=" + QFile::encodeName(desktop.program) + " open %u\n"));
    EXPECT_TRUE(linkEntryText.contains("\nMimeType=x-scheme-handler/qlk;\n"));

    // The inverted word: "active" while no WebApp user is.
    EXPECT_TRUE(QTest::qWaitFor([&] { return delegate.statusField()->text() == u"active"; }, 10000));

    // The first launch put the agent in the autostart folder; the menu's check mark follows it.
    ASSERT_TRUE(QTest::qWaitFor([&] { return finished; }, 10000));
    QMenu *menu = delegate.statusMenu();
    QAction *openAtLogin = action(menu, QStringLiteral("Open Vandrel at Login"));
    ASSERT_NE(openAtLogin, nullptr);
    Q_EMIT menu->aboutToShow();
    EXPECT_TRUE(openAtLogin->isChecked());
    openAtLogin->trigger();
    EXPECT_TRUE(QDir(desktop.home.filePath(QStringLiteral(".config/autostart"))).isEmpty());

    // A StorageRoot made while running shows on the next menu open: reveal reaches every root's uploads
    // folder (with no file manager on the bus, by opening the folders that hold them).
    desktop.home.setEnvironment("VANDREL_CLOUD_FOLDERS",
                                QFile::encodeName(desktop.home.filePath(QStringLiteral("Sync"))));
    writeMarker(desktop.home, QStringLiteral("Sync/Apps/vandrel"), 0);
    Q_EMIT menu->aboutToShow();
    desktop.opened.clear();
    action(menu, QStringLiteral("Reveal Uploads Folder"))->trigger();
    EXPECT_EQ(desktop.opened.size(), 3);
    for (const QUrl &url : std::as_const(desktop.opened))
        EXPECT_TRUE(QFileInfo(url.toLocalFile()).isDir()) << url.toString().toStdString();

    UserDefaults::setValue(SettingsKeys::WebAppURL, QStringLiteral("https://app.vandrel.test/"));
    desktop.opened.clear();
    action(menu, QStringLiteral("Open Vandrel Web App"))->trigger();
    EXPECT_EQ(desktop.opened, QList<QUrl>{QUrl(QStringLiteral("https://app.vandrel.test/"))});

    // Files dropped on the window become links on the clipboard, in drop order, vanished ones left out.
    const QString base = QStringLiteral("https://links.example/l");
    desktop.home.setEnvironment("VANDREL_LINK_SERVICE_URL", base.toUtf8());
    const QString first = desktop.home.writeFile(QStringLiteral("Docs/first file.txt"), "one");
    const QString gone = desktop.home.filePath(QStringLiteral("Docs/gone.txt"));
    const QString folder = desktop.home.filePath(QStringLiteral("Docs"));
    const auto drop = [&](const QList<QUrl> &urls) {
        QMimeData data;
        data.setUrls(urls);
        QDragEnterEvent enter(QPoint(5, 5), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(delegate.window(), &enter);
        QDropEvent dropped(QPointF(5, 5), Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(delegate.window(), &dropped);
        return enter.isAccepted() && dropped.isAccepted();
    };
    ASSERT_TRUE(drop({QUrl::fromLocalFile(folder), QUrl::fromLocalFile(gone), QUrl::fromLocalFile(first)}));
    const QStringList links{qlk_Schema::qlkURLFor(folder, base)->toString(QUrl::FullyEncoded),
                            qlk_Schema::qlkURLFor(first, base)->toString(QUrl::FullyEncoded)};
    EXPECT_EQ(QGuiApplication::clipboard()->text(), links.join(u'\n'));
    EXPECT_EQ(QGuiApplication::clipboard()->mimeData()->urls(),
              (QList<QUrl>{QUrl(links[0]), QUrl(links[1])}));

    QGuiApplication::clipboard()->setText(QStringLiteral("kept"));
    EXPECT_TRUE(drop({QUrl::fromLocalFile(gone)}));
    EXPECT_EQ(QGuiApplication::clipboard()->text(), QStringLiteral("kept"))
        << "only a vanished file: untouched";
    EXPECT_FALSE(drop({QUrl(QStringLiteral("https://example.org/page"))})) << "only local files are taken";
}

TEST(DesktopFace, PreferencesTwiceLeaveOneFreshWindowAndEverySaveRewritesTheInfoFiles)
{
    DesktopHome desktop;
    // Installed system-wide, the program leaves the user's applications folder alone.
    desktop.home.writeFile(QStringLiteral("system/applications/vandrel.desktop"), "[Desktop Entry]\n");
    vd_AppDelegate delegate(nullptr, desktop.options());
    delegate.applicationDidFinishLaunching();
    EXPECT_FALSE(QDir(desktop.home.filePath(QStringLiteral(".local/share/applications"))).exists());

    delegate.showPreferences();
    QPointer<PreferencesWindow> first = delegate.preferencesController();
    ASSERT_TRUE(first);
    EXPECT_TRUE(first->passwordField()->text().isEmpty());
    first->passwordField()->setText(QStringLiteral("tr0ub4dor"));

    // Opening again closes the first window (which saves what was typed) and makes a new one.
    delegate.showPreferences();
    EXPECT_FALSE(first);
    PreferencesWindow *second = delegate.preferencesController();
    EXPECT_TRUE(second->isVisible());
    EXPECT_EQ(second->passwordField()->text(), QStringLiteral("tr0ub4dor"));
    EXPECT_EQ(ls_Keychain::stringForKey(vd_FileUtils::keyForComputerPassword()), QStringLiteral("tr0ub4dor"));

    // Closing with no change still rewrites every info file.
    const double saved = desktop.info(desktop.driveRoot).value(QStringLiteral("last_updated")).toDouble();
    QTest::qWait(20);
    second->close();
    for (const QString &root : {desktop.dropboxRoot, desktop.driveRoot})
        EXPECT_GT(desktop.info(root).value(QStringLiteral("last_updated")).toDouble(), saved);

    // Ending the edit of an emptied field clears the password at once.
    delegate.showPreferences();
    PreferencesWindow *third = delegate.preferencesController();
    third->passwordField()->clear();
    Q_EMIT third->passwordField()->editingFinished();
    EXPECT_EQ(ls_Keychain::stringForKey(vd_FileUtils::keyForComputerPassword()).value_or(QString()),
              QString());

    // Another window becoming active saves what the field holds.
    third->passwordField()->setText(QStringLiteral("left without Return"));
    EXPECT_TRUE(QTest::qWaitForWindowActive(third));
    delegate.window()->activateWindow();
    EXPECT_TRUE(QTest::qWaitFor(
        [&] {
            return ls_Keychain::stringForKey(vd_FileUtils::keyForComputerPassword()) ==
                   QStringLiteral("left without Return");
        },
        10000));
}

TEST(Screenshots, TrayMenuAndPreferencesWindowOnAnXServer)
{
    if (QGuiApplication::platformName() != u"xcb")
        GTEST_SKIP() << "needs an X server: ctest runs this under xvfb-run";
    DesktopHome desktop;
    vd_AppDelegate delegate(nullptr, desktop.options());
    bool finished = false;
    QObject::connect(&delegate, &vd_AppDelegate::launchFinished, [&] { finished = true; });
    delegate.applicationDidFinishLaunching();
    ASSERT_TRUE(QTest::qWaitFor([&] { return finished; }, 10000));

    QMenu *menu = delegate.statusMenu();
    menu->popup(QPoint(40, 40));
    ASSERT_TRUE(QTest::qWaitForWindowExposed(menu));
    QTest::qWait(300);
    const QImage menuShot = fromScreen(menu);
    save(menuShot, QStringLiteral("tray-menu.png"));
    EXPECT_GE(menuShot.height(), 200); // every action has its row
    EXPECT_GE(distinctColours(menuShot), 4);
    menu->hide();

    delegate.showPreferences();
    PreferencesWindow *preferences = delegate.preferencesController();
    preferences->move(60, 60);
    preferences->passwordField()->setText(QStringLiteral("secret"));
    ASSERT_TRUE(QTest::qWaitForWindowExposed(preferences));
    QTest::qWait(300);
    const QImage preferencesShot = fromScreen(preferences);
    save(preferencesShot, QStringLiteral("preferences.png"));
    EXPECT_GE(distinctColours(preferencesShot), 4);

    // The two tray icon states side by side, as drawn for a light and a dark panel.
    QImage icons(4 * 72, 72, QImage::Format_ARGB32);
    icons.fill(Qt::white);
    QPainter painter(&icons);
    painter.drawPixmap(4, 4, StatusIcons::colour().pixmap(64));
    painter.drawPixmap(76, 4, StatusIcons::grey().pixmap(64));
    painter.fillRect(144, 0, 144, 72, QColor(0x20, 0x20, 0x20));
    QPalette dark = QApplication::palette();
    dark.setColor(QPalette::Window, QColor(0x20, 0x20, 0x20));
    const QPalette light = QApplication::palette();
    QApplication::setPalette(dark);
    painter.drawPixmap(148, 4, StatusIcons::colour().pixmap(64));
    painter.drawPixmap(220, 4, StatusIcons::grey().pixmap(64));
    QApplication::setPalette(light);
    painter.end();
    save(icons, QStringLiteral("status-icons.png"));
    EXPECT_NE(icons.pixel(14, 55), icons.pixel(86, 55)); // the folders of colour and grey differ
}
