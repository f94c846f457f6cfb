#include "platform/Trash.h"

#include "platform/PlatformLog.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>

#include <fcntl.h>
#include <stdio.h>

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
    // The item is renamed first and its restore record written after. A record that is missing or empty
    // (a full disk) leaves an item no file manager can put back: return it to its place instead.
    const QFileInfo trashed(inTrash);
    const QString info = trashed.absoluteDir().absoluteFilePath(
        QStringLiteral("../info/%1.trashinfo").arg(trashed.fileName()));
    if (QFileInfo(info).size() > 0)
        return inTrash;
    if (::renameat2(AT_FDCWD, QFile::encodeName(inTrash).constData(), AT_FDCWD,
                    QFile::encodeName(path).constData(), RENAME_NOREPLACE) == 0) {
        // The record was made by this call and describes nothing now.
        QFile::remove(info);
        qCWarning(lcPlatform).noquote()
            << QStringLiteral("could not move %1 to the trash: its restore record could not be written")
                   .arg(path);
    } else {
        qCWarning(lcPlatform).noquote()
            << QStringLiteral("moved %1 to %2, but its restore record is missing").arg(path, inTrash);
    }
    return QString();
}

} // namespace Trash
