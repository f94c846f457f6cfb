#include "relay/AccessToken.h"
#include "relay/RelayLog.h"
#include "relay/RelayServer.h"
#include "support/Logging.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QFileInfo>
#include <QLoggingCategory>
#include <QStandardPaths>

#include <sys/resource.h>

#include <boost/asio/signal_set.hpp>
#include <cstdio>

namespace {

QString defaultWebRoot()
{
    const QString besideBinary =
        QCoreApplication::applicationDirPath() + QStringLiteral("/../share/vandrel/web");
    for (const QString &candidate : {besideBinary, QStringLiteral(VANDREL_RELAY_INSTALLED_WEB_ROOT),
                                     QStringLiteral(VANDREL_RELAY_SOURCE_WEB_ROOT)}) {
        if (QFileInfo::exists(candidate + QStringLiteral("/index.html")))
            return QDir::cleanPath(candidate);
    }
    return QStringLiteral(VANDREL_RELAY_SOURCE_WEB_ROOT);
}

// Every polling agent holds a connection; the soft limit of open files is often far below the hard one.
void raiseOpenFileLimit()
{
    rlimit limit = {};
    if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }
}

} // namespace

int main(int argc, char **argv)
{
    Logging::install();
    // Reading a link logs a folder link's marker segment; the relay logs nothing of the links it shows.
    QLoggingCategory::setFilterRules(QStringLiteral("vd.links.info=false"));
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("vandrel-relay"));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Relay between Vandrel agents and the browser page."));
    parser.addHelpOption();
    const QCommandLineOption portOption(QStringLiteral("port"), QStringLiteral("TCP port (0: any free one)."),
                                        QStringLiteral("port"), QStringLiteral("8780"));
    const QCommandLineOption bindOption(QStringLiteral("bind"), QStringLiteral("Address to listen on."),
                                        QStringLiteral("address"), QStringLiteral("127.0.0.1"));
    const QCommandLineOption cloudOption(QStringLiteral("cloud-folder"),
                                         QStringLiteral("A synced folder shared with agents (repeatable)."),
                                         QStringLiteral("dir"));
    const QCommandLineOption stateOption(
        QStringLiteral("state-dir"), QStringLiteral("Folder for the access token."), QStringLiteral("dir"));
    const QCommandLineOption webOption(
        QStringLiteral("web-root"), QStringLiteral("Folder of the WebApp's files."), QStringLiteral("dir"));
    const QCommandLineOption holdOption(
        QStringLiteral("long-poll-ms"),
        QStringLiteral("How long an empty agent poll is held (0: not at all)."), QStringLiteral("ms"),
        QStringLiteral("1000"));
    parser.addOptions({portOption, bindOption, cloudOption, stateOption, webOption, holdOption});
    parser.process(app);

    RelayConfig config;
    bool portOk = false;
    const uint port = parser.value(portOption).toUInt(&portOk);
    bool holdOk = false;
    const int hold = parser.value(holdOption).toInt(&holdOk);
    if (!portOk || port > 65535 || !holdOk || hold < 0 || hold > 10000) {
        std::fprintf(stderr, "vandrel-relay: --port takes 0 to 65535, --long-poll-ms 0 to 10000\n");
        return 2;
    }
    config.port = quint16(port);
    config.longPollHold = std::chrono::milliseconds(hold);
    config.bindAddress = parser.value(bindOption);
    for (const QString &folder : parser.values(cloudOption))
        config.cloudFolders.append(QDir(folder).absolutePath());
    if (config.cloudFolders.isEmpty())
        qCWarning(lcRelay).noquote() << "no --cloud-folder given: agents will find no session files";
    config.stateDir = parser.isSet(stateOption)
                          ? parser.value(stateOption)
                          : QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) +
                                QStringLiteral("/vandrel/relay");
    config.webRoot =
        parser.isSet(webOption) ? QDir(parser.value(webOption)).absolutePath() : defaultWebRoot();
    if (!QFileInfo::exists(config.webRoot + QStringLiteral("/index.html")))
        qCWarning(lcRelay).noquote() << "no WebApp in" << config.webRoot << "- only the API is served";

    const std::optional<QByteArray> token = loadOrMakeAccessToken(config.stateDir);
    if (!token)
        return 1;
    raiseOpenFileLimit();

    boost::asio::io_context io(1);
    RelayServer server(io, config, *token);
    if (!server.start())
        return 1;
    const bool v6 = config.bindAddress.contains(u':');
    const QString host = v6 ? u'[' + config.bindAddress + u']' : config.bindAddress;
    std::printf("vandrel-relay: open http://%s:%u/#token=%s\n", qPrintable(host), unsigned(server.port()),
                token->constData());
    std::fflush(stdout);

    boost::asio::signal_set signals(io, SIGINT, SIGTERM);
    signals.async_wait([&](boost::system::error_code, int) {
        qCInfo(lcRelay).noquote() << "stopping: closing the browser sessions";
        server.stop();
        io.stop();
    });
    io.run();
    return 0;
}
