#include "app/desktop/DesktopCommand.h"

#include "app/AgentEngine.h"
#include "app/AppLog.h"
#include "app/DPOpenAtLogin.h"
#include "app/QuitSignals.h"
#include "app/desktop/vd_AppDelegate.h"

#include <QApplication>

int runDesktop(int argc, char **argv)
{
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("vandrel"));
    QApplication::setApplicationDisplayName(QStringLiteral("Vandrel"));
    QApplication::setApplicationVersion(QStringLiteral(VANDREL_VERSION));
    QApplication::setDesktopFileName(QStringLiteral("vandrel"));
    // In the tray the agent keeps running with no window open.
    QApplication::setQuitOnLastWindowClosed(false);
    if (!quitOnSignals())
        qCWarning(lcApp).noquote() << "cannot watch for SIGINT and SIGTERM";

    AgentEngine engine(false);
    int code = 0;
    {
        vd_AppDelegate delegate(&engine,
                                {.loginItems = Autostart(), .programPath = DPOpenAtLogin::programPath()});
        delegate.applicationDidFinishLaunching();
        qCInfo(lcApp).noquote() << "vandrel running on the desktop";
        code = QApplication::exec();
    }
    qCInfo(lcApp).noquote() << "vandrel stopping";
    engine.stop();
    return code;
}
