#include "app/LinkCommand.h"

#include "app/ConsoleStreams.h"
#include "app/FileLinkHandler.h"
#include "app/InstanceChannel.h"
#include "platform/SettingsKeys.h"
#include "platform/UserDefaults.h"

#include <QFileInfo>
#include <QJsonArray>

int runLinkCommand(const QStringList &args)
{
    QTextStream &out = standardOutput();
    QTextStream &err = standardError();
    if (args.isEmpty()) {
        err << "usage: vandrel link PATH...\n";
        return 64;
    }
    if (UserDefaults::stringValue(SettingsKeys::LinkServiceURL).trimmed().isEmpty()) {
        err << "vandrel: no link service address: set LinkServiceURL in " << UserDefaults::filePath() << "\n";
        return 1;
    }
    QStringList paths;
    for (const QString &path : args)
        paths << QFileInfo(path).absoluteFilePath();

    QStringList links;
    bool onClipboard = false;
    if (const std::optional<QJsonObject> answer = InstanceChannel::handOver(QStringLiteral("link"), paths)) {
        if (answer->contains(QStringLiteral("error"))) {
            err << "vandrel: " << answer->value(QStringLiteral("error")).toString() << "\n";
            return 1;
        }
        for (const QJsonValue &link : answer->value(QStringLiteral("links")).toArray())
            links << link.toString();
        onClipboard = answer->value(QStringLiteral("clipboard")).toBool();
    } else {
        links = FileLinkHandler::linksForFiles(paths);
    }
    if (!onClipboard)
        FileLinkHandler::putOnClipboard(links);
    for (const QString &link : links)
        out << link << "\n";
    out.flush();
    if (links.isEmpty()) {
        err << "vandrel: none of the paths exists; the clipboard is unchanged\n";
        return 1;
    }
    return 0;
}
