#include "app/desktop/PreferencesWindow.h"
#include "app/desktop/StatusIcons.h"
#include "app/desktop/vd_AppDelegate.h"
#include "common/TempHome.h"

#include <QApplication>
#include <QDir>
#include <QFile>
#include <QImage>
#include <QLineEdit>
#include <QMenu>
#include <QPainter>
#include <QScreen>
#include <QSet>
#include <QTest>

#include <gtest/gtest.h>

namespace {

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

TEST(Screenshots, TrayMenuAndPreferencesWindowOnAnXServer)
{
    if (QGuiApplication::platformName() != u"xcb")
        GTEST_SKIP() << "needs an X server: ctest runs this under xvfb-run";
    TempHome home;
    home.setEnvironment("VANDREL_KEYCHAIN", "file");
    LifecycleTimes times;
    times.dropboxCheck = std::chrono::hours(1);
    const QString program = home.filePath(QStringLiteral("vandrel"));
    QFile::copy(QStringLiteral("/bin/true"), program);
    vd_AppDelegate delegate(nullptr, {times, [](const QUrl &) {}, Autostart(), program});
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
