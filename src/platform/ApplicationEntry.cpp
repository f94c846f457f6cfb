#include "platform/ApplicationEntry.h"

#include "platform/Autostart.h"
#include "platform/PlatformLog.h"

#include <QDir>
#include <QFile>
#include <QStandardPaths>

namespace {

const QString kEntryName = QStringLiteral("vandrel.desktop");
const QString kLinkEntryName = QStringLiteral("vandrel-link-handler.desktop");

} // namespace

namespace ApplicationEntry {

QString installedPath()
{
    return QStandardPaths::locate(QStandardPaths::ApplicationsLocation, kEntryName);
}

namespace {

// Writes one entry unless it exists; false (with a log line) when it could not be written.
bool writeEntry(const QString &folder, const QString &name, const QByteArray &content)
{
    QFile file(QDir(folder).filePath(name));
    if (file.exists())
        return true;
    if (!QDir().mkpath(folder) || !file.open(QIODevice::WriteOnly | QIODevice::NewOnly) ||
        file.write(content) != content.size() || !file.flush()) {
        qCWarning(lcPlatform).noquote() << "cannot add" << name << "to the application menu in" << folder;
        if (file.isOpen())
            file.remove();
        return false;
    }
    return true;
}

} // namespace

QString installForUser(const QString &programPath)
{
    if (const QString existing = installedPath(); !existing.isEmpty())
        return existing;
    if (programPath.isEmpty())
        return {};
    const QString folder = QStandardPaths::writableLocation(QStandardPaths::ApplicationsLocation);
    const QString program = Autostart::execLine(programPath, {});
    const QByteArray menuEntry =
        QStringLiteral("[Desktop Entry]\n"
                       "Type=Application\n"
                       "Name=Vandrel\n"
                       "Comment=Reach this computer's files from the Vandrel web app\n"
                       "Exec=%1 %F\n"
                       "Icon=vandrel\n"
                       "Terminal=false\n"
                       "Categories=Network;FileTransfer;\n")
            .arg(program)
            .toUtf8();
    const QByteArray linkEntry =
        QStringLiteral("[Desktop Entry]\n"
                       "Type=Application\n"
                       "Name=Vandrel Link Handler\n"
                       "Comment=Find the file a Vandrel link describes and show it in the file manager\n"
                       "Exec=%1 open %u\n"
                       "Icon=vandrel\n"
                       "Terminal=false\n"
                       "NoDisplay=true\n"
                       "MimeType=x-scheme-handler/qlk;\n")
            .arg(program)
            .toUtf8();
    if (!writeEntry(folder, kEntryName, menuEntry) || !writeEntry(folder, kLinkEntryName, linkEntry))
        return {};
    return QDir(folder).filePath(kEntryName);
}

} // namespace ApplicationEntry
