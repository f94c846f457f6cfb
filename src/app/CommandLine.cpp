#include "app/CommandLine.h"

#include "app/ConsoleStreams.h"
#include "app/FileManagerReveal.h"
#include "app/HeadlessCommand.h"
#include "app/IndexCommand.h"
#include "app/LinkCommand.h"
#include "app/OpenCommand.h"
#include "app/PasswordCommand.h"
#include "app/StatusCommand.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QGuiApplication>
#include <QTextStream>

#include <functional>
#include <memory>

namespace {

struct Command
{
    const char *name;
    const char *usage;
    const char *summary;
    std::function<int(const QStringList &args)> run;
};

QTextStream &out()
{
    return standardOutput();
}

QTextStream &err()
{
    return standardError();
}

const std::vector<Command> &commands()
{
    static const std::vector<Command> table = {
        {"--headless", "vandrel --headless", "run the agent without a window (servers, systemd user service)",
         runHeadlessCommand},
        {"index", "vandrel index status|rebuild|query TEXT [--scope DIR] [--limit N]",
         "inspect the metadata index", runIndexCommand},
        {"link", "vandrel link PATH...", "make web links for files and put them on the clipboard",
         runLinkCommand},
        {"open", "vandrel open URL", "find the file a link describes and reveal it", runOpenCommand},
        {"password", "vandrel password set|clear|status",
         "manage the computer password (set reads standard input)", runPasswordCommand},
        {"status", "vandrel status", "show the computer id, password state and storage folders",
         runStatusCommand},
    };
    return table;
}

// Files handed to the application itself (a file manager's "Open With", or a path typed after `vandrel`)
// become links, as `vandrel link` makes them. The first argument decides, so a mistyped command that happens
// to name no file is still reported as unknown.
bool namesFiles(const QString &firstArgument)
{
    return !firstArgument.startsWith(u'-') && QFileInfo::exists(firstArgument);
}

} // namespace

QString helpText()
{
    QString text;
    QTextStream stream(&text);
    stream << "Usage: vandrel [--headless | COMMAND ...]\n\n"
           << "Reach this computer's files from the Vandrel web app.\n\n"
           << "  vandrel                 start the desktop agent (tray icon or window)\n"
           << "  vandrel PATH...         the same as vandrel link PATH...\n";
    for (const Command &command : commands())
        stream << "  " << QString::fromLatin1(command.usage) << "\n      " << command.summary << "\n";
    stream << "  vandrel --version       print the version\n"
           << "  vandrel --help          print this help\n\n"
           << "Environment: VANDREL_RELAY_URL, VANDREL_WEBAPP_URL, VANDREL_LINK_SERVICE_URL override the\n"
           << "addresses in the settings; "
           << "VANDREL_KEYCHAIN=file keeps secrets in a private file instead of the Secret Service.\n\n"
           << "Settings ($XDG_CONFIG_HOME/vandrel/vandrel.conf): RelayServerURL, WebAppURL, WebSiteURL,\n"
           << "SupportURL, LinkServiceURL, RelayRequestTimeout (seconds), IndexedRoots, IndexExcludes,\n"
           << "KPRunInDock (true: a window instead of the tray icon). More in vandrel(1).\n";
    return text;
}

// Only making links needs the desktop (its clipboard). A display that cannot be reached falls back to an
// offscreen one rather than ending the process.
std::unique_ptr<QCoreApplication> makeApplication(int &argc, char **argv)
{
    if (argc < 2 || (qstrcmp(argv[1], "link") != 0 && !namesFiles(QFile::decodeName(argv[1]))) ||
        !hasDisplay())
        return std::make_unique<QCoreApplication>(argc, argv);
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM",
                qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY") ? "xcb;offscreen" : "wayland;xcb;offscreen");
    return std::make_unique<QGuiApplication>(argc, argv);
}

int runCommandLine(int argc, char **argv)
{
    const std::unique_ptr<QCoreApplication> app = makeApplication(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("vandrel"));
    QCoreApplication::setApplicationVersion(QStringLiteral(VANDREL_VERSION));

    QStringList args = QCoreApplication::arguments().mid(1);
    const QString first = args.value(0);
    if (first == u"--version" || first == u"-v") {
        out() << "vandrel " << VANDREL_VERSION << "\n";
        return 0;
    }
    if (first.isEmpty() || first == u"--help" || first == u"-h" || first == u"help") {
        out() << helpText();
        return 0;
    }
    for (const Command &command : commands()) {
        if (first == QLatin1String(command.name))
            return command.run(args.mid(1));
    }
    if (namesFiles(first))
        return runLinkCommand(args);
    err() << "vandrel: unknown command '" << first << "'\n\n" << helpText();
    return 64;
}
