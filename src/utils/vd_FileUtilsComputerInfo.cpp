#include "platform/Trash.h"
#include "utils/PathHelpers.h"
#include "utils/vd_FileUtils.h"
#include "utils/vd_SimpleUtils.h"

#include <QDir>
#include <QFileInfo>

#include <cmath>
#include <map>

namespace {

constexpr int kConflictedNameLength = 61;
constexpr double kOldComputerFileSeconds = 200000.0;

// Every entry of the folder, hidden ones included, in one listing.
QFileInfoList listOnce(const QString &folder)
{
    if (folder.isEmpty())
        return {};
    return QDir(folder).entryInfoList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                                      QDir::Name);
}

// A computer file's date: its "last_updated" when present, else its modification time.
double fileDate(const QJsonObject &object, const QString &path)
{
    if (object.contains(QStringLiteral("last_updated")))
        return vd_FileUtils::JSONDate(
            vd_FileUtils::dateFromJSON(object.value(QStringLiteral("last_updated"))));
    return vd_FileUtils::JSONDate(GetFileModificationDate(path));
}

} // namespace

void vd_FileUtils::updateComputerInfo()
{
    resetVandrelFolderCache();
    for (const QString &root : storageFoldersDropBoxGDriveEtc())
        writeComputerInfoFileTo(root, false);
}

void vd_FileUtils::ensureComputerInfo()
{
    for (const QString &root : storageFoldersDropBoxGDriveEtc())
        writeComputerInfoFileTo(root, true);
}

void vd_FileUtils::writeComputerInfoFileTo(const QString &storageRoot, bool checkOnly, const QDateTime &now)
{
    // An empty root would put the data folder at the top of the file system.
    if (storageRoot.isEmpty())
        return;
    const QString folder = getRootsPath(storageRoot);
    if (folder.isEmpty())
        return;
    const QString path = folder + u'/' + getComputerUUID() + QStringLiteral(".json");
    if (checkOnly && QFileInfo::exists(path))
        return;
    getRidOfConflictedCopyFiles(storageRoot);
    getRidOfOldComputerFiles(storageRoot, now);
    getRidOfDuplicateComputerFiles(storageRoot);
    getRidOfDuplicateSessionsAreHereFiles(storageRoot);

    QJsonObject info{
        {QStringLiteral("computer_id"), getComputerUUID()},
        {QStringLiteral("computer_name"), vd_SimpleUtils::computerName()},
        {QStringLiteral("last_updated"), JSONDate(now)},
        {QStringLiteral("dropbox_path"), dropBoxFolderGET(storageRoot)},
        {QStringLiteral("uploads_folder"), getDefaultDropBoxUploadsFolder(storageRoot)},
        {QStringLiteral("app_version"), getAppVersionString()},
        // The WebApp knows computers by this wire value, whatever system they run.
        {QStringLiteral("platform"), QStringLiteral("osx")},
    };
    // A password that cannot be read now says nothing about whether one is set: keep what the file said.
    const std::optional<bool> passwordSet = computerPasswordIsSet();
    if (passwordSet ? *passwordSet
                    : readJsonFileMutableDictionary(path).value(QStringLiteral("pword_required")).toBool())
        info.insert(QStringLiteral("pword_required"), true);
    writeJsonFile(info, path);
}

void vd_FileUtils::getRidOfConflictedCopyFiles(const QString &storageRoot)
{
    for (const QFileInfo &entry : listOnce(getRootsPath(storageRoot))) {
        if (entry.fileName().size() >= kConflictedNameLength)
            Trash::moveToTrash(entry.filePath());
    }
}

void vd_FileUtils::getRidOfOldComputerFiles(const QString &storageRoot, const QDateTime &now)
{
    const double nowSeconds = JSONDate(now);
    for (const QFileInfo &entry : listOnce(getRootsPath(storageRoot))) {
        const QJsonObject object = readJsonFileMutableDictionary(entry.filePath());
        if (object.isEmpty())
            continue;
        // Absolute on purpose: a file dated far in the future is as stale as an old one.
        if (std::abs(fileDate(object, entry.filePath()) - nowSeconds) > kOldComputerFileSeconds)
            Trash::moveToTrash(entry.filePath());
    }
}

void vd_FileUtils::getRidOfDuplicateComputerFiles(const QString &storageRoot)
{
    const QFileInfoList entries = listOnce(getRootsPath(storageRoot));
    std::map<QString, QJsonObject> readable;
    for (const QFileInfo &entry : entries) {
        const QJsonObject object = readJsonFileMutableDictionary(entry.filePath());
        if (!object.isEmpty())
            readable.emplace(entry.filePath(), object);
    }
    // Of several files carrying one computer name only the newest stays. Each file is judged against every
    // other one, including those already trashed in this pass, as they were when read from disk again.
    for (const QFileInfo &entry : entries) {
        const QString pathA = entry.filePath();
        const auto a = readable.find(pathA);
        if (a == readable.end())
            continue;
        const double dateA = fileDate(a->second, pathA);
        const QJsonValue nameA = a->second.value(QStringLiteral("computer_name"));
        // A file without a name is nobody's duplicate.
        if (nameA.isUndefined())
            continue;
        for (const auto &[pathB, unused] : readable) {
            if (pathB == pathA)
                continue;
            const QJsonObject objectB = readJsonFileMutableDictionary(pathB);
            if (objectB.value(QStringLiteral("computer_name")) != nameA)
                continue;
            if (fileDate(objectB, pathB) > dateA) {
                Trash::moveToTrash(pathA);
                break;
            }
        }
    }
}

void vd_FileUtils::getRidOfDuplicateSessionsAreHereFiles(const QString &storageRoot)
{
    for (const QFileInfo &entry : listOnce(getDataFolderPath(storageRoot))) {
        const QString name = entry.fileName();
        if (name.startsWith(u"sessions_are_here") && name != u"sessions_are_here.json")
            Trash::moveToTrash(entry.filePath());
    }
}
