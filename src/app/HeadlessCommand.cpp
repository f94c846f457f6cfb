#include "app/HeadlessCommand.h"

#include "app/AgentEngine.h"
#include "app/AgentLifecycle.h"
#include "app/AppLog.h"
#include "app/QuitSignals.h"
#include "utils/vd_FileUtils.h"

#include <QCoreApplication>

int runHeadlessCommand(const QStringList &args)
{
    if (!args.isEmpty()) {
        qCWarning(lcApp).noquote() << "vandrel --headless takes no arguments";
        return 64;
    }
    if (!quitOnSignals()) {
        qCWarning(lcApp).noquote() << "cannot watch for SIGINT and SIGTERM";
        return 1;
    }

    vd_FileUtils::resetVandrelFolderCache();
    AgentEngine engine(true);
    engine.start();
    // Without a screen the status has no place to show; the refresh still puts back a lost computer info
    // file, and the welcome page and the Dropbox notice become log lines. The login start belongs to the
    // systemd user unit here, so no autostart entry is made.
    AgentLifecycle lifecycle;
    lifecycle.start(nullptr, {});

    qCInfo(lcApp).noquote() << "vandrel running headless";
    const int code = QCoreApplication::exec();
    qCInfo(lcApp).noquote() << "vandrel stopping";
    engine.stop();
    return code;
}
