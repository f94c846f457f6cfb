#include "platform/Trash.h"

#include "platform/PlatformLog.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>

namespace Trash {

QString moveToTrash(const QString &path)
{
    QDir().mkpath(QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation));
    QFile item(path);
    if (!item.exists() && !QFileInfo(path).isSymLink())
        return QString();
    if (!item.moveToTrash()) {
        qCWarning(lcPlatform).noquote()
            << QStringLiteral("could not move %1 to the trash: %2").arg(path, item.errorString());
        return QString();
    }
    const QString inTrash = item.fileName();
    // The item is renamed first and its restore record written after; a record that is missing or empty
    // (a full disk) leaves an item the file manager cannot put back, which the user should hear about.
    const QFileInfo trashed(inTrash);
    const QString info = trashed.absoluteDir().absoluteFilePath(
        QStringLiteral("../info/%1.trashinfo").arg(trashed.fileName()));
    if (QFileInfo(info).size() == 0)
        qCWarning(lcPlatform).noquote()
            << QStringLiteral("moved %1 to %2, but its restore record is missing").arg(path, inTrash);
    return inTrash;
}

} // namespace Trash
