#include "platform/ApplicationEntry.h"

#include "platform/Autostart.h"
#include "platform/PlatformLog.h"

#include <QDir>
#include <QFile>
#include <QStandardPaths>

namespace {

const QString kEntryName = QStringLiteral("vandrel.desktop");

} // namespace

namespace ApplicationEntry {

QString installedPath()
{
    return QStandardPaths::locate(QStandardPaths::ApplicationsLocation, kEntryName);
}

QString installForUser(const QString &programPath)
{
    if (const QString existing = installedPath(); !existing.isEmpty())
        return existing;
    const QString folder = QStandardPaths::writableLocation(QStandardPaths::ApplicationsLocation);
    QFile file(QDir(folder).filePath(kEntryName));
    const QByteArray content = QStringLiteral("[Desktop Entry]\n"
                                              "Type=Application\n"
                                              "Name=Vandrel\n"
                                              "Comment=Reach this computer's files from the Vandrel web app\n"
                                              "Exec=%1 %U\n"
                                              "Icon=vandrel\n"
                                              "Terminal=false\n"
                                              "Categories=Network;FileTransfer;\n"
                                              "MimeType=x-scheme-handler/qlklink;\n")
                                   .arg(Autostart::execLine(programPath, {}))
                                   .toUtf8();
    if (programPath.isEmpty() || !QDir().mkpath(folder) ||
        !file.open(QIODevice::WriteOnly | QIODevice::NewOnly) || file.write(content) != content.size() ||
        !file.flush()) {
        qCWarning(lcPlatform).noquote() << "cannot add Vandrel to the application menu in" << folder;
        if (file.isOpen())
            file.remove();
        return {};
    }
    return file.fileName();
}

} // namespace ApplicationEntry
