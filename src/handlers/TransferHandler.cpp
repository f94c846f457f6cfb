#include "handlers/TransferHandler.h"

#include "handlers/ItemComparison.h"
#include "handlers/vd_FileCompareCache.h"
#include "utils/vd_FileUtils.h"

#include <QCoreApplication>
#include <QFileInfo>

#include <sys/stat.h>

namespace {

QString tr(const char *text)
{
    return QCoreApplication::translate("vd_Searcher", text);
}

// Whether anything, a dangling link included, is at the path.
bool occupied(const QString &path)
{
    struct stat info;
    return ::lstat(QFile::encodeName(path).constData(), &info) == 0;
}

// The path split into the part before the extension and the extension (without its dot).
std::pair<QString, QString> splitExtension(const QString &path)
{
    const QFileInfo info(path);
    const QString name = info.fileName();
    const qsizetype dot = name.lastIndexOf(u'.');
    if (dot <= 0)
        return {path, QString()};
    return {path.left(path.size() - (name.size() - dot)), name.mid(dot + 1)};
}

QString lastComponent(const QString &path)
{
    QString trimmed = path;
    while (trimmed.size() > 1 && trimmed.endsWith(u'/'))
        trimmed.chop(1);
    return QFileInfo(trimmed).fileName();
}

} // namespace

void TransferHandler::handleCopyToDropboxRequest(QJsonObject &request,
                                                 const FileOperations::InterruptionCheck &check)
{
    const QString source = request.value(QStringLiteral("path")).toString();
    const QString storageRoot = request.value(QStringLiteral("vandrel_folder")).toString();
    QString folder = request.value(QStringLiteral("dest_path")).toString();
    if (folder.isEmpty() && !storageRoot.isEmpty())
        folder = vd_FileUtils::getDefaultDropBoxUploadsFolder(storageRoot);
    if (folder.isEmpty()) {
        // With no folder at all the copy would land at the top of the file system.
        request.insert(QStringLiteral("error"),
                       tr("Not copied, error was %1").arg(tr("no destination folder")));
        return;
    }
    const QString destination = folder + u'/' + lastComponent(source);

    FileOperations::Failure failure;
    if (handleOldVersionsAtDestination(destination, source))
        failure = FileOperations::copyItem(source, destination, check);
    if (failure) {
        request.insert(QStringLiteral("error"), tr("Not copied, error was %1").arg(*failure));
    } else {
        request.insert(QStringLiteral("message"), tr("Copied to Dropbox"));
        request.insert(QStringLiteral("matching_path"), destination);
        if (!storageRoot.isEmpty()) {
            const qsizetype at = destination.indexOf(storageRoot);
            request.insert(QStringLiteral("matching_path_clipped"),
                           at < 0 ? destination : destination.mid(storageRoot.size()));
        }
    }
    vd_FileCompareCache::refreshMatchedFilesCache(true);
}

bool TransferHandler::handleOldVersionsAtDestination(const QString &destination, const QString &source)
{
    if (!occupied(destination))
        return true;
    if (contentsEqual(destination, source))
        return false;
    const auto [base, extension] = splitExtension(destination);
    for (int n = 1;; ++n) {
        const QString aside =
            base + QStringLiteral(" V%1").arg(n) + (extension.isEmpty() ? QString() : u'.' + extension);
        if (!occupied(aside)) {
            FileOperations::moveItem(destination, aside);
            return true;
        }
    }
}

void TransferHandler::handleMoveFromDropboxRequest(QJsonObject &request,
                                                   const FileOperations::InterruptionCheck &check)
{
    const QString requested = request.value(QStringLiteral("path")).toString();
    // The rules below judge the item as it is on disk, "..", "." and links resolved: a path that only
    // reads as if it were in the Dropbox folder must not move anything from elsewhere.
    const QString source = requested.isEmpty() ? QString() : QFileInfo(requested).canonicalFilePath();
    const QString dropbox =
        QFileInfo(vd_FileUtils::dropBoxFolderGET(request.value(QStringLiteral("vandrel_folder")).toString()))
            .canonicalFilePath();
    const bool inside =
        !source.isEmpty() && !dropbox.isEmpty() && (source == dropbox || source.startsWith(dropbox + u'/'));
    const std::optional<QString> refusal =
        inside ? dropboxMoveSourceError(source, dropbox) : tr("%1 is not in your Dropbox folder");
    if (refusal) {
        request.insert(QStringLiteral("error"), refusal->arg(requested));
        return;
    }
    QString folder = request.value(QStringLiteral("dest_path")).toString();
    if (folder.isEmpty())
        folder = vd_FileUtils::getDefaultMoveFromFolder();
    const QString destination = getPathThatsUnused(folder + u'/' + lastComponent(source));
    if (const FileOperations::Failure failure = FileOperations::moveItem(source, destination, check))
        request.insert(QStringLiteral("error"), tr("Not removed from Dropbox, error was %1").arg(*failure));
    else
        request.insert(QStringLiteral("message"), tr("Moved out of Dropbox"));
    vd_FileCompareCache::refreshMatchedFilesCache(false);
}

std::optional<QString> TransferHandler::dropboxMoveSourceError(const QString &source,
                                                               const QString &dropboxFolder)
{
    const QString dropbox = dropboxFolder.toLower();
    const QString path = source.toLower();
    if (path == dropbox)
        return tr("%1 seems to be your Dropbox folder, we are not moving the whole thing!");
    if (dropbox.isEmpty() || !path.startsWith(dropbox))
        return tr("%1 is not in your Dropbox folder");
    const QString below = path.mid(dropbox.size());
    if (below == u"/apps")
        return tr("%1 is a required folder in Dropbox");
    if (below.startsWith(u"/apps/vandrel/uploads/"))
        return std::nullopt;
    if (below.startsWith(u"/apps/vandrel/"))
        return tr("%1 is a required folder for Vandrel to operate");
    if (below.startsWith(u"/apps"))
        return tr("%1 is a folder in use by another dropbox application. You can delete this by removing "
                  "permission for this application at www.dropbox.com.");
    if (below == u"/photos" || below == u"/public")
        return tr("%1 is a required folder in Dropbox, try removing items inside this folder.");
    return std::nullopt;
}

QString TransferHandler::getPathThatsUnused(const QString &wished)
{
    if (!occupied(wished))
        return wished;
    const auto [base, extension] = splitExtension(wished);
    for (int n = 1;; ++n) {
        const QString candidate =
            base + QStringLiteral(" (%1)").arg(n) + (extension.isEmpty() ? QString() : u'.' + extension);
        if (!occupied(candidate))
            return candidate;
    }
}
