#include "platform/Trash.h"

#include "platform/PlatformLog.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>

#include <fcntl.h>
#include <stdio.h>
#include <unistd.h>

namespace {

QString dataHome()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
}

// The home trash and a file system's own trash folders are the only places a file manager looks in.
bool isTrashFolder(const QString &trashDir)
{
    const QFileInfo info(trashDir);
    const QString uid = QString::number(::getuid());
    if (info.canonicalFilePath() == QFileInfo(dataHome() + QStringLiteral("/Trash")).canonicalFilePath())
        return true;
    if (info.fileName() == QStringLiteral(".Trash-") + uid)
        return true;
    return info.fileName() == uid && QFileInfo(info.absolutePath()).fileName() == QStringLiteral(".Trash");
}

QString restoreRecordOf(const QString &inTrash)
{
    const QFileInfo item(inTrash);
    const QString trashDir = QFileInfo(item.absolutePath()).absolutePath();
    return trashDir + QStringLiteral("/info/") + item.fileName() + QStringLiteral(".trashinfo");
}

bool isRecoverable(const QString &inTrash)
{
    const QString filesDir = QFileInfo(inTrash).absolutePath();
    if (QFileInfo(filesDir).fileName() != QStringLiteral("files"))
        return false;
    if (!isTrashFolder(QFileInfo(filesDir).absolutePath()))
        return false;
    // An empty record is what a full disk leaves behind: no file manager could restore the item.
    return QFileInfo(restoreRecordOf(inTrash)).size() > 0;
}

} // namespace

std::optional<QString> Trash::moveToTrash(const QString &path)
{
    // Without the data home, Qt makes a "files" folder in the working directory instead of a trash.
    QDir().mkpath(dataHome());
    QString moved;
    if (!QFile::moveToTrash(path, &moved)) {
        qCWarning(lcPlatform).noquote() << QStringLiteral("could not move %1 to the trash").arg(path);
        return std::nullopt;
    }
    moved = QFileInfo(moved).absoluteFilePath();
    if (isRecoverable(moved))
        return moved;

    // The item sits where no file manager would offer it back: return it to its place. The restore
    // record, if any, was made by this call and describes nothing once the item is back.
    const QString record = restoreRecordOf(moved);
    if (::renameat2(AT_FDCWD, QFile::encodeName(moved).constData(), AT_FDCWD,
                    QFile::encodeName(path).constData(), RENAME_NOREPLACE) == 0) {
        QFile::remove(record);
        qCWarning(lcPlatform).noquote()
            << QStringLiteral("the trash could not take %1; it stays where it was").arg(path);
    } else {
        qCWarning(lcPlatform).noquote()
            << QStringLiteral("the trash could not take %1; it is now at %2").arg(path, moved);
    }
    return std::nullopt;
}
