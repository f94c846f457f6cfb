#include "platform/SettingsKeys.h"
#include "platform/UserDefaults.h"
#include "support/Encodings.h"
#include "utils/vd_FileUtils.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QStandardPaths>

#include <nlohmann/json.hpp>

namespace {

const QString kAppFolder = QStringLiteral("Apps/vandrel");
const QString kMarker = QStringLiteral("data.vdldata/sessions_are_here.json");
constexpr int kDeepestExaminedDepth = 5;
constexpr double kFreshMarkerSeconds = 3000.0;

QString home(const QString &relative)
{
    return QDir::homePath() + u'/' + relative;
}

// The Dropbox client writes these files as a few hundred bytes of text. Anything else (a pipe, which would
// block the reader, or a huge file) is not one of them and reads as unreadable.
bool isClientFile(const QString &path)
{
    constexpr qint64 kLimit = 1024 * 1024;
    const QFileInfo info(path);
    return info.isFile() && info.size() <= kLimit;
}

bool exists(const QString &path)
{
    return !path.isEmpty() && QFileInfo::exists(path);
}

struct DeepSearch
{
    double now;
    double bestDate = 0;
    QString best;
    QString lastCandidate;
    std::optional<QString> fresh;

    // Depth first, in the file system's order, hidden items included; links are not followed.
    void walk(const QString &folder, int depth)
    {
        const QFileInfoList entries = QDir(folder).entryInfoList(
            QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Unsorted);
        for (const QFileInfo &entry : entries) {
            if (fresh)
                return;
            const bool isFolder = entry.isDir() && !entry.isSymLink();
            if (isFolder && entry.fileName().toLower() == u"vandrel")
                consider(entry.filePath());
            if (fresh)
                return;
            if (isFolder && depth < kDeepestExaminedDepth)
                walk(entry.filePath(), depth + 1);
        }
    }

    void consider(const QString &candidate)
    {
        lastCandidate = candidate;
        const QString marker = candidate + u'/' + kMarker;
        if (!QFileInfo::exists(marker))
            return;
        const double date =
            vd_FileUtils::readJsonFileMutableDictionary(marker).value(QStringLiteral("date")).toDouble();
        if (date <= bestDate)
            return;
        if (now - date < kFreshMarkerSeconds) {
            UserDefaults::setValue(SettingsKeys::LastBestPath, candidate);
            fresh = candidate;
            return;
        }
        bestDate = date;
        best = candidate;
    }
};

} // namespace

std::optional<QString> vd_FileUtils::getHostFileContents()
{
    QFile file(home(QStringLiteral(".dropbox/host.db")));
    if (!isClientFile(file.fileName()) || !file.open(QIODevice::ReadOnly))
        return std::nullopt;
    return QString::fromUtf8(file.readAll());
}

std::optional<QString> vd_FileUtils::dropboxPathOLD()
{
    const std::optional<QString> contents = getHostFileContents();
    if (!contents)
        return std::nullopt;
    static const QRegularExpression newline(QStringLiteral("[\\n\\r\\x{0085}\\x{2028}\\x{2029}]"));
    const QStringList lines = contents->split(newline);
    if (lines.size() < 2)
        return std::nullopt;
    const std::optional<QString> path = base64DecodedString(lines[1]);
    if (!path || !exists(*path))
        return std::nullopt;
    return path;
}

std::optional<vd_FileUtils::OrderedJsonObject> vd_FileUtils::getDropboxInfoJSONDict()
{
    QFile file(home(QStringLiteral(".dropbox/info.json")));
    if (!file.exists())
        return std::nullopt;
    if (!isClientFile(file.fileName()) || !file.open(QIODevice::ReadOnly))
        return OrderedJsonObject{};
    const QByteArray bytes = file.readAll();
    OrderedJsonObject result;
    result.object = jsonObjectFromBytes(bytes);
    if (result.object.isEmpty())
        return result;
    // The object reader sorts keys; the accounts' order in the file is the user's order, so read it again
    // with an order-keeping parser (the text is known to be a valid object by now).
    const auto ordered = nlohmann::ordered_json::parse(bytes.constBegin(), bytes.constEnd(), nullptr, false);
    if (ordered.is_object()) {
        for (const auto &item : ordered.items())
            result.keys << QString::fromStdString(item.key());
    }
    return result;
}

QStringList vd_FileUtils::dropBoxFolderGETAll()
{
    QStringList folders;
    if (const std::optional<OrderedJsonObject> info = getDropboxInfoJSONDict()) {
        for (const QString &account : info->keys) {
            const QJsonValue path = info->object.value(account).toObject().value(QStringLiteral("path"));
            if (path.isString())
                folders << path.toString();
        }
    }
    if (!folders.isEmpty())
        return folders;
    if (const std::optional<QString> legacy = dropboxPathOLD()) {
        folders << *legacy;
        digForDropboxFolders(folders);
        return folders;
    }
    const QString standard = home(QStringLiteral("Dropbox"));
    if (exists(standard))
        folders << standard;
    return folders;
}

void vd_FileUtils::digForDropboxFolders(QStringList &folders)
{
    const QFileInfoList entries =
        QDir(QDir::homePath()).entryInfoList(QDir::Dirs | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name);
    for (const QFileInfo &entry : entries) {
        if (entry.fileName().startsWith(u"Dropbox ") && !folders.contains(entry.filePath()))
            folders << entry.filePath();
    }
}

QStringList vd_FileUtils::cloudFolders()
{
    const QVariant setting = UserDefaults::value(SettingsKeys::CloudFolders);
    const QStringList listed = setting.typeId() == QMetaType::QStringList
                                   ? setting.toStringList()
                                   : setting.toString().split(u':', Qt::SkipEmptyParts);
    QStringList folders;
    for (const QString &entry : listed) {
        const QString folder = QDir::cleanPath(entry.trimmed());
        if (QDir::isAbsolutePath(folder) && folder != QStringLiteral("/") && QFileInfo(folder).isDir() &&
            !folders.contains(folder))
            folders << folder;
    }
    return folders;
}

QString vd_FileUtils::dropBoxFolderGET(const QString &path)
{
    for (const QString &folder : dropBoxFolderGETAll()) {
        if (path.startsWith(folder))
            return folder;
    }
    // Whole path components here: a cloud folder may be any folder, and "/srv/sync" must not claim
    // "/srv/sync-other".
    for (const QString &folder : cloudFolders()) {
        if (path == folder || path.startsWith(folder + u'/'))
            return folder;
    }
    const QString standard = home(QStringLiteral("Dropbox"));
    return exists(standard) ? standard : QStringLiteral("");
}

std::optional<QString> vd_FileUtils::findVandrelFolder(const QString &folder, const QDateTime &now)
{
    const QString cached = UserDefaults::stringValue(SettingsKeys::LastBestPath);
    if (exists(cached))
        return cached;
    UserDefaults::remove(SettingsKeys::LastBestPath);

    DeepSearch search{double(now.toMSecsSinceEpoch()) / 1000.0};
    search.walk(folder, 1);
    if (search.fresh)
        return search.fresh;
    if (!search.best.isEmpty())
        return search.best;
    if (!search.lastCandidate.isEmpty())
        return search.lastCandidate;
    return std::nullopt;
}

void vd_FileUtils::resetVandrelFolderCache()
{
    UserDefaults::remove(SettingsKeys::LastBestPath);
}

std::optional<QString> vd_FileUtils::dropBoxFolderVandrel(const QString &dropboxFolder)
{
    if (dropboxFolder.isEmpty())
        return std::nullopt;
    const QString candidate = dropboxFolder + u'/' + kAppFolder;
    if (QFileInfo::exists(candidate + u'/' + kMarker))
        return candidate;
    const std::optional<QString> found = findVandrelFolder(dropboxFolder);
    if (found && exists(*found))
        return found;
    return std::nullopt;
}

QStringList vd_FileUtils::dropBoxFolderVandrelAll()
{
    QStringList roots;
    for (const QString &folder : dropBoxFolderGETAll()) {
        if (const std::optional<QString> root = dropBoxFolderVandrel(folder))
            roots << *root;
    }
    return roots;
}

std::optional<QString> vd_FileUtils::googleDriveFolder()
{
    const QString folder = home(QStringLiteral("GDrive"));
    return exists(folder) ? std::optional<QString>(folder) : std::nullopt;
}

std::optional<QString> vd_FileUtils::googleDriveFolderVandrel()
{
    const std::optional<QString> drive = googleDriveFolder();
    if (!drive)
        return std::nullopt;
    const QString root = *drive + u'/' + kAppFolder;
    QDir().mkpath(root);
    return root;
}

QStringList vd_FileUtils::storageFoldersDropBoxGDriveEtc()
{
    QStringList roots = dropBoxFolderVandrelAll();
    if (const std::optional<QString> drive = googleDriveFolderVandrel())
        roots << *drive;
    for (const QString &folder : cloudFolders()) {
        const std::optional<QString> root = dropBoxFolderVandrel(folder);
        if (root && !roots.contains(*root))
            roots << *root;
    }
    return roots;
}

QString vd_FileUtils::getDefaultDropBoxUploadsFolderROOT(const QString &storageRoot)
{
    if (storageRoot.isEmpty())
        return QString();
    return storageRootOwnFolder(storageRoot, QStringLiteral("uploads"), true).value_or(QString());
}

QString vd_FileUtils::getDefaultDropBoxUploadsFolder(const QString &storageRoot, const QDateTime &now)
{
    // Without a root the month path would be "/<year>/<month>" at the top of the file system.
    if (getDefaultDropBoxUploadsFolderROOT(storageRoot).isEmpty())
        return QString();
    const QString month = getFileByDatePath(QStringLiteral("uploads"), now);
    return storageRootOwnFolder(storageRoot, month, true).value_or(QString());
}

QString vd_FileUtils::getDefaultMoveFromFolder(const QDateTime &now)
{
    QString downloads = home(QStringLiteral("Downloads"));
    const QStringList located = QStandardPaths::standardLocations(QStandardPaths::DownloadLocation);
    if (!located.isEmpty())
        downloads = located.last();
    const QString folder = getFileByDatePath(downloads + QStringLiteral("/From Dropbox"), now);
    QDir().mkpath(folder);
    return folder;
}
