#include "app/desktop/vd_AppDelegate.h"

#include "app/AgentEngine.h"
#include "app/AppLog.h"
#include "app/DPOpenAtLogin.h"
#include "app/desktop/DropboxNotice.h"
#include "app/desktop/LinkDropTarget.h"
#include "app/desktop/PreferencesWindow.h"
#include "app/desktop/StatusIcons.h"
#include "platform/ApplicationEntry.h"
#include "platform/SettingsKeys.h"
#include "platform/UserDefaults.h"
#include "utils/vd_FileUtils.h"

#include <QAction>
#include <QApplication>
#include <QCursor>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDesktopServices>
#include <QDir>
#include <QFileInfo>
#include <QLabel>
#include <QMainWindow>
#include <QMenu>
#include <QMenuBar>
#include <QMessageBox>
#include <QSystemTrayIcon>
#include <QVBoxLayout>

namespace {

// How long a file manager may take to answer the reveal request before the parent folder is opened.
constexpr int kRevealTimeoutMs = 3000;

} // namespace

vd_AppDelegate::vd_AppDelegate(AgentEngine *engine, Options options)
    : m_engine(engine)
    , m_options(std::move(options))
    , m_lifecycle(m_options.times)
{
    if (m_options.openUrl)
        m_lifecycle.setUrlOpener(m_options.openUrl);
    else
        m_lifecycle.setUrlOpener([](const QUrl &url) { QDesktopServices::openUrl(url); });

    m_window = new QMainWindow;
    m_window->setObjectName(QStringLiteral("mainWindow"));
    m_window->setWindowTitle(QStringLiteral("Vandrel"));
    m_window->setWindowIcon(StatusIcons::colour());
    auto *central = new QWidget(m_window);
    auto *layout = new QVBoxLayout(central);
    auto *heading =
        new QLabel(tr("Vandrel is running. Reach this computer's files from the web app. Drop files here to "
                      "put links to them on the clipboard."),
                   central);
    heading->setWordWrap(true);
    m_status = new QLabel(central);
    m_status->setObjectName(QStringLiteral("status"));
    layout->addWidget(heading);
    layout->addWidget(m_status);
    m_window->setCentralWidget(central);
    m_mainMenu = buildMenu(m_window);
    m_mainMenu->setTitle(QStringLiteral("&Vandrel"));
    m_window->menuBar()->addMenu(m_mainMenu);
    m_window->resize(420, 160);
    new LinkDropTarget(m_window);

    m_statusMenu = buildMenu(nullptr);
    m_statusMenu->setObjectName(QStringLiteral("statusMenu"));
    m_dropboxNotRunningPanel = new DropboxNotice;

    connect(&m_lifecycle, &AgentLifecycle::statusUpdated, this, &vd_AppDelegate::updateStatus);
    connect(&m_lifecycle, &AgentLifecycle::dropboxNoticeShown, this, [this] {
        m_dropboxNotRunningPanel->show();
        m_dropboxNotRunningPanel->raise();
        m_dropboxNotRunningPanel->activateWindow();
    });
    connect(&m_lifecycle, &AgentLifecycle::dropboxNoticeHidden, this,
            &vd_AppDelegate::dropboxNotRunningClicked);
}

vd_AppDelegate::~vd_AppDelegate()
{
    delete m_preferencesController;
    delete m_dropboxNotRunningPanel;
    delete m_statusItem;
    delete m_statusMenu;
    delete m_window;
}

QMenu *vd_AppDelegate::buildMenu(QWidget *parent)
{
    auto *menu = new QMenu(parent);
    menu->addAction(tr("About Vandrel"), this, &vd_AppDelegate::showAboutBox);
    menu->addAction(tr("Preferences…"), this, &vd_AppDelegate::showPreferences);
    menu->addSeparator();
    menu->addAction(tr("Open Vandrel Web App"), this, &vd_AppDelegate::openVandrelWebApp);
    menu->addAction(tr("Reveal Uploads Folder"), this, &vd_AppDelegate::revealUploadsFolder);
    menu->addAction(tr("Support"), this, &vd_AppDelegate::supportAction);
    menu->addSeparator();
    QAction *openAtLogin =
        menu->addAction(tr("Open Vandrel at Login"), this, &vd_AppDelegate::openVandrelAtLoginAction);
    openAtLogin->setCheckable(true);
    m_openAtLoginActions << openAtLogin;
    menu->addAction(tr("Run in a Window"), this, &vd_AppDelegate::runInDock);
    menu->addAction(tr("Run in the Tray"), this, &vd_AppDelegate::runInMenubar);
    menu->addSeparator();
    menu->addAction(tr("Quit Vandrel"), qApp, &QCoreApplication::quit);
    return menu;
}

void vd_AppDelegate::applicationDidFinishLaunching()
{
    // Installed by the package, the program has its menu entry and link handler; run from where it was
    // built or unpacked, it makes them for the user.
    ApplicationEntry::installForUser(m_options.programPath);
    vd_FileUtils::resetVandrelFolderCache();
    // "KPRunInDock" answers false until stored: its default lives in the settings table.
    transformApp();
    if (m_engine)
        m_engine->start();
    m_lifecycle.start(&m_options.loginItems, m_options.programPath);
    connect(&m_lifecycle, &AgentLifecycle::launchFinished, this, [this] {
        // A window left open while the user works elsewhere goes to the taskbar, as the application's
        // windows hide when it stops being the active one.
        connect(qApp, &QGuiApplication::applicationStateChanged, this, [this](Qt::ApplicationState state) {
            if (state == Qt::ApplicationInactive && m_window->isVisible() && !m_window->isMinimized())
                m_window->showMinimized();
        });
        for (QMenu *menu : {m_mainMenu, m_statusMenu})
            connect(menu, &QMenu::aboutToShow, this, &vd_AppDelegate::menuWillOpen);
        Q_EMIT launchFinished();
    });
}

void vd_AppDelegate::transformApp()
{
    bool dock = UserDefaults::boolValue(SettingsKeys::RunInDock);
    if (!dock && !QSystemTrayIcon::isSystemTrayAvailable()) {
        qCInfo(lcApp).noquote() << "no system tray is available; showing the Vandrel window instead";
        dock = true;
    }
    showStatusItem(!dock);
    if (dock) {
        m_window->showNormal();
        m_window->raise();
        m_window->activateWindow();
    } else {
        m_window->hide();
    }
}

void vd_AppDelegate::showStatusItem(bool show)
{
    delete m_statusItem;
    m_statusItem = nullptr;
    if (!show)
        return;
    m_statusItem = new QSystemTrayIcon(StatusIcons::grey(), this);
    m_statusItem->setToolTip(QStringLiteral("Vandrel"));
    m_statusItem->setContextMenu(m_statusMenu);
    // A click on the icon opens the same menu as the context click, as tray users expect.
    connect(m_statusItem, &QSystemTrayIcon::activated, this,
            [this](QSystemTrayIcon::ActivationReason reason) {
                if (reason == QSystemTrayIcon::Trigger)
                    m_statusMenu->popup(QCursor::pos());
            });
    m_statusItem->show();
}

void vd_AppDelegate::updateStatus(const QString &statusText, bool userActive)
{
    m_status->setText(statusText);
    if (m_statusItem) {
        m_statusItem->setIcon(userActive ? StatusIcons::colour() : StatusIcons::grey());
        m_statusItem->setToolTip(QStringLiteral("Vandrel: %1").arg(statusText));
    }
}

void vd_AppDelegate::menuWillOpen()
{
    vd_FileUtils::resetVandrelFolderCache();
    const bool enabled = DPOpenAtLogin::openAtLoginEnabled(m_options.loginItems, m_options.programPath);
    for (QAction *action : std::as_const(m_openAtLoginActions))
        action->setChecked(enabled);
}

void vd_AppDelegate::showAboutBox()
{
    QMessageBox::about(m_window->isVisible() ? m_window : nullptr, tr("About Vandrel"),
                       tr("<b>Vandrel</b> %1<br>Reach this computer's files from the Vandrel web app.")
                           .arg(vd_FileUtils::getAppVersionString()));
}

void vd_AppDelegate::showPreferences()
{
    if (m_preferencesController) {
        m_preferencesController->close();
        delete m_preferencesController;
    }
    m_preferencesController = new PreferencesWindow([this] { openVandrelWebApp(); });
    m_preferencesController->show();
    m_preferencesController->raise();
    m_preferencesController->activateWindow();
}

void vd_AppDelegate::openVandrelWebApp()
{
    m_lifecycle.openUrl(QUrl(UserDefaults::stringValue(SettingsKeys::WebAppURL)));
}

void vd_AppDelegate::supportAction()
{
    m_lifecycle.openUrl(QUrl(UserDefaults::stringValue(SettingsKeys::SupportURL)));
}

void vd_AppDelegate::revealUploadsFolder()
{
    for (const QString &root : vd_FileUtils::storageFoldersDropBoxGDriveEtc()) {
        const QString uploads = vd_FileUtils::getDefaultDropBoxUploadsFolder(root);
        if (!uploads.isEmpty())
            revealInFileManager(uploads);
    }
}

void vd_AppDelegate::revealInFileManager(const QString &path)
{
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("/org/freedesktop/FileManager1"),
        QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("ShowItems"));
    call << QStringList{QUrl::fromLocalFile(path).toString()} << QString();
    if (QDBusConnection::sessionBus().call(call, QDBus::Block, kRevealTimeoutMs).type() ==
        QDBusMessage::ReplyMessage)
        return;
    // No file manager answers the reveal request: its parent folder, in which it is to be found.
    m_lifecycle.openUrl(QUrl::fromLocalFile(QFileInfo(path).absolutePath()));
}

void vd_AppDelegate::openVandrelAtLoginAction()
{
    DPOpenAtLogin::toggleLoginItem(m_options.loginItems, m_options.programPath);
    menuWillOpen();
}

void vd_AppDelegate::runInDock()
{
    UserDefaults::setValue(SettingsKeys::RunInDock, true);
    transformApp();
}

void vd_AppDelegate::runInMenubar()
{
    UserDefaults::setValue(SettingsKeys::RunInDock, false);
    transformApp();
}

void vd_AppDelegate::dropboxNotRunningClicked()
{
    m_dropboxNotRunningPanel->hide();
}
