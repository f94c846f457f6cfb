#include "utils/ComputerInfoFile.h"

#include "platform/Trash.h"
#include "support/ls_Keychain.h"
#include "utils/PathHelpers.h"
#include "utils/vd_FileUtils.h"
#include "utils/vd_SimpleUtils.h"

#include <QDir>
#include <QFileInfo>
#include <QMap>

#include <cmath>

namespace {

// A computer info file is named by a 32-character id and ".json": names this long are sync copies of one.
constexpr qsizetype kConflictedNameLength = 61;
// A computer whose file has not been rewritten for this long (about 55 hours) has stopped running.
constexpr double kOldComputerSeconds = 200000.0;
const QString kMarkerName = QStringLiteral("sessions_are_here.json");

QFileInfoList entriesOf(const QString &folder)
{
    return QDir(folder).entryInfoList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                                      QDir::Name);
}

// The file's "last_updated", or its modification time when it has none.
double dateOf(const QString &path, const QJsonObject &record)
{
    const QJsonValue updated = record.value(QStringLiteral("last_updated"));
    const QDateTime date =
        updated.isUndefined() ? GetFileModificationDate(path) : vd_FileUtils::dateFromJSON(updated);
    return vd_FileUtils::JSONDate(date);
}

void trash(const QFileInfo &entry)
{
    Trash::moveToTrash(entry.filePath());
}

} // namespace

void ComputerInfoFile::updateComputerInfo()
{
    vd_FileUtils::resetVandrelFolderCache();
    for (const QString &root : vd_FileUtils::storageFoldersDropBoxGDriveEtc())
        writeComputerInfoFileTo(root, false);
}

void ComputerInfoFile::ensureComputerInfo()
{
    for (const QString &root : vd_FileUtils::storageFoldersDropBoxGDriveEtc())
        writeComputerInfoFileTo(root, true);
}

QString ComputerInfoFile::computerInfoFilePath(const QString &storageRoot)
{
    return storageRoot + QStringLiteral("/data.vdldata/computers/") + vd_FileUtils::getComputerUUID() +
           QStringLiteral(".json");
}

void ComputerInfoFile::writeComputerInfoFileTo(const QString &storageRoot, bool checkOnly,
                                               const QDateTime &now)
{
    if (storageRoot.isEmpty())
        return;
    if (checkOnly && QFileInfo::exists(computerInfoFilePath(storageRoot)))
        return;
    getRidOfConflictedCopyFiles(storageRoot);
    getRidOfOldComputerFiles(storageRoot, now);
    getRidOfDuplicateComputerFiles(storageRoot);
    getRidOfDuplicateSessionsAreHereFiles(storageRoot);
    vd_FileUtils::getRootsPath(storageRoot);
    vd_FileUtils::writeJsonFile(computerInfo(storageRoot, now), computerInfoFilePath(storageRoot));
}

QJsonObject ComputerInfoFile::computerInfo(const QString &storageRoot, const QDateTime &now)
{
    QJsonObject record{
        {QStringLiteral("computer_id"), vd_FileUtils::getComputerUUID()},
        {QStringLiteral("computer_name"), vd_SimpleUtils::computerName()},
        {QStringLiteral("last_updated"), vd_FileUtils::JSONDate(now)},
        {QStringLiteral("dropbox_path"), vd_FileUtils::dropBoxFolderGET(storageRoot)},
        {QStringLiteral("uploads_folder"), vd_FileUtils::getDefaultDropBoxUploadsFolder(storageRoot)},
        {QStringLiteral("app_version"), vd_FileUtils::getAppVersionString()},
        // What the WebApp knows the agent by, whatever system it runs on.
        {QStringLiteral("platform"), QStringLiteral("osx")},
    };
    if (!ls_Keychain::stringForKey(vd_FileUtils::keyForComputerPassword()).value_or(QString()).isEmpty())
        record.insert(QStringLiteral("pword_required"), true);
    return record;
}

void ComputerInfoFile::getRidOfConflictedCopyFiles(const QString &storageRoot)
{
    for (const QFileInfo &entry : entriesOf(vd_FileUtils::getRootsPath(storageRoot))) {
        if (entry.fileName().size() >= kConflictedNameLength)
            trash(entry);
    }
}

void ComputerInfoFile::getRidOfOldComputerFiles(const QString &storageRoot, const QDateTime &now)
{
    const double nowSeconds = vd_FileUtils::JSONDate(now);
    for (const QFileInfo &entry : entriesOf(vd_FileUtils::getRootsPath(storageRoot))) {
        const QJsonObject record = vd_FileUtils::readSmallJsonFile(entry.filePath());
        // The distance is absolute: a file dated far in the future is as wrong as a stale one.
        if (!record.isEmpty() &&
            std::fabs(nowSeconds - dateOf(entry.filePath(), record)) > kOldComputerSeconds)
            trash(entry);
    }
}

void ComputerInfoFile::getRidOfDuplicateComputerFiles(const QString &storageRoot)
{
    const QFileInfoList entries = entriesOf(vd_FileUtils::getRootsPath(storageRoot));
    QMap<QString, QJsonObject> records;
    for (const QFileInfo &entry : entries) {
        const QJsonObject record = vd_FileUtils::readSmallJsonFile(entry.filePath());
        if (!record.isEmpty())
            records.insert(entry.filePath(), record);
    }
    // Of the files that carry one computer name only the newest stays; equal dates all stay.
    for (const QFileInfo &entry : entries) {
        const auto own = records.constFind(entry.filePath());
        if (own == records.cend())
            continue;
        const QJsonValue name = own->value(QStringLiteral("computer_name"));
        if (name.isUndefined() || name.isNull())
            continue;
        const double date = dateOf(entry.filePath(), *own);
        for (const QString &other : records.keys()) {
            if (other == entry.filePath())
                continue;
            const QJsonObject otherRecord = vd_FileUtils::readSmallJsonFile(other);
            if (otherRecord.value(QStringLiteral("computer_name")) == name &&
                dateOf(other, otherRecord) > date) {
                trash(entry);
                break;
            }
        }
    }
}

void ComputerInfoFile::getRidOfDuplicateSessionsAreHereFiles(const QString &storageRoot)
{
    for (const QFileInfo &entry : entriesOf(vd_FileUtils::getDataFolderPath(storageRoot))) {
        if (entry.fileName().startsWith(QStringLiteral("sessions_are_here")) &&
            entry.fileName() != kMarkerName)
            trash(entry);
    }
}
