#pragma once

#include "app/AgentLifecycle.h"
#include "app/desktop/PreferencesWindow.h"
#include "platform/Autostart.h"

#include <QObject>
#include <QPointer>

class AgentEngine;
class DropboxNotice;
class QAction;
class QLabel;
class QMainWindow;
class QMenu;
class QSystemTrayIcon;

// The desktop face: a tray icon with its menu, or (by choice, or when the desktop has no tray) a small
// window with a taskbar entry, the preferences window, the Dropbox notice, and the shared start-up and
// timers of AgentLifecycle. One instance, on the main thread.
class vd_AppDelegate : public QObject
{
    Q_OBJECT
public:
    struct Options
    {
        LifecycleTimes times;
        // Where web pages and folders go; empty: the desktop's browser and file manager.
        AgentLifecycle::UrlOpener openUrl;
        Autostart loginItems;
        QString programPath;
    };

    // `engine` is started in its place in the sequence; none runs the shell alone.
    vd_AppDelegate(AgentEngine *engine, Options options);
    ~vd_AppDelegate() override;

    // The start-up sequence, in order; everything after the welcome pause runs from a timer.
    void applicationDidFinishLaunching();

    // Menu actions.
    void showAboutBox();
    void showPreferences();
    void openVandrelWebApp();
    void supportAction();
    void revealUploadsFolder();
    void openVandrelAtLoginAction();
    void runInDock();
    void runInMenubar();
    void dropboxNotRunningClicked();

    // Shows the engine's status text and the icon of its state.
    void updateStatus(const QString &statusText, bool userActive);

    // The presentation mode from "KPRunInDock": the window in Dock mode, else the tray icon; the window
    // also when the desktop has no tray.
    void transformApp();

    bool inTray() const { return m_statusItem != nullptr; }
    QMainWindow *window() const { return m_window; }
    QMenu *statusMenu() const { return m_statusMenu; }
    QLabel *statusField() const { return m_status; }
    DropboxNotice *dropboxNotRunningPanel() const { return m_dropboxNotRunningPanel; }
    PreferencesWindow *preferencesController() const { return m_preferencesController; }

Q_SIGNALS:
    void launchFinished();

private:
    QMenu *buildMenu(QWidget *parent);
    // Before a menu opens: StorageRoots may have come or gone, and the login entry may have changed.
    void menuWillOpen();
    void showStatusItem(bool show);
    void revealInFileManager(const QString &path);

    AgentEngine *m_engine;
    Options m_options;
    AgentLifecycle m_lifecycle;
    QMainWindow *m_window = nullptr;
    QLabel *m_status = nullptr;
    QMenu *m_statusMenu = nullptr;
    QMenu *m_mainMenu = nullptr;
    QList<QAction *> m_openAtLoginActions;
    QSystemTrayIcon *m_statusItem = nullptr;
    DropboxNotice *m_dropboxNotRunningPanel = nullptr;
    QPointer<PreferencesWindow> m_preferencesController;
};
