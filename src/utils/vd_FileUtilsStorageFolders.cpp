#include "platform/SettingsKeys.h"
#include "platform/UserDefaults.h"
#include "support/Encodings.h"
#include "utils/UtilsLog.h"
#include "utils/vd_FileUtils.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QStandardPaths>

#include <nlohmann/json.hpp>

namespace {

const QString kAppFolder = QStringLiteral("Apps/vandrel");
const QString kMarkerFile = QStringLiteral("data.vdldata/sessions_are_here.json");
// Folders below a Dropbox folder that the deep search still looks at; its children are depth 1.
constexpr int kDeepSearchDepth = 5;
// A marker written this recently belongs to a WebApp in use now.
constexpr double kFreshMarkerSeconds = 3000.0;
// The Dropbox client's own files are a few hundred bytes; anything far larger is not one of them.
constexpr qint64 kClientFileLimit = 1024 * 1024;

QString homeFile(const QString &relative)
{
    return QDir::homePath() + u'/' + relative;
}

// The whole file when it exists and is small enough to be the Dropbox client's; none otherwise.
std::optional<QByteArray> readClientFile(const QString &path)
{
    QFile file(path);
    if (!file.exists())
        return std::nullopt;
    if (!file.open(QIODevice::ReadOnly))
        return QByteArray();
    const QByteArray bytes = file.read(kClientFileLimit + 1);
    if (bytes.size() > kClientFileLimit) {
        qCWarning(lcUtils).noquote()
            << QStringLiteral("%1 is too large to be the Dropbox client's").arg(path);
        return std::nullopt;
    }
    return bytes;
}

double markerDate(const QString &candidate)
{
    const QJsonObject marker = vd_FileUtils::readSmallJsonFile(candidate + u'/' + kMarkerFile);
    return vd_FileUtils::JSONDate(vd_FileUtils::dateFromJSON(marker.value(QStringLiteral("date"))));
}

struct DeepSearch
{
    double now;
    double bestDate = 0;
    QString bestPath;
    QString lastCandidate;

    // Depth first, in the file system's order, hidden items included; links are not followed. Returns true
    // when a fresh marker ended the walk.
    bool walk(const QString &folder, int depth)
    {
        QDirIterator children(folder, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot);
        while (children.hasNext()) {
            children.next();
            const QFileInfo child = children.fileInfo();
            if (!child.isDir() || child.isSymLink())
                continue;
            if (child.fileName().toLower() == u"vandrel" && examine(child.filePath()))
                return true;
            if (depth < kDeepSearchDepth && walk(child.filePath(), depth + 1))
                return true;
        }
        return false;
    }

    bool examine(const QString &candidate)
    {
        lastCandidate = candidate;
        if (!QFileInfo::exists(candidate + u'/' + kMarkerFile))
            return false;
        const double date = markerDate(candidate);
        if (date <= bestDate)
            return false;
        if (now - date < kFreshMarkerSeconds) {
            UserDefaults::setValue(SettingsKeys::LastBestPath, candidate);
            bestPath = candidate;
            return true;
        }
        bestDate = date;
        bestPath = candidate;
        return false;
    }
};

QString createdFolder(const QString &path)
{
    if (!QFileInfo(path).isDir())
        QDir().mkpath(path);
    return path;
}

} // namespace

QJsonObject vd_FileUtils::readSmallJsonFile(const QString &path)
{
    constexpr qint64 kLimit = 1024 * 1024;
    if (QFileInfo(path).size() > kLimit)
        return {};
    return readJsonFileMutableDictionary(path);
}

std::optional<QString> vd_FileUtils::getHostFileContents()
{
    const std::optional<QByteArray> bytes = readClientFile(homeFile(QStringLiteral(".dropbox/host.db")));
    if (!bytes)
        return std::nullopt;
    return QString::fromUtf8(*bytes);
}

std::optional<QString> vd_FileUtils::dropboxPathOLD()
{
    const std::optional<QString> contents = getHostFileContents();
    if (!contents)
        return std::nullopt;
    // Every newline character splits, so "\r\n" leaves an empty line between its two halves.
    static const QRegularExpression newline(QStringLiteral("[\\n\\x{b}\\f\\r\\x{85}\\x{2028}\\x{2029}]"));
    const QStringList lines = contents->split(newline);
    if (lines.size() < 2)
        return std::nullopt;
    const std::optional<QString> path = base64DecodedString(lines.at(1));
    if (!path || !QFileInfo::exists(*path))
        return std::nullopt;
    return path;
}

std::optional<QList<vd_FileUtils::DropboxAccount>> vd_FileUtils::getDropboxInfoJSONDict()
{
    const std::optional<QByteArray> bytes = readClientFile(homeFile(QStringLiteral(".dropbox/info.json")));
    if (!bytes)
        return std::nullopt;
    // The tolerant reader decides what counts as an object and logs what does not; the second parser only
    // recovers the accounts' order, which QJsonObject loses.
    if (jsonObjectFromBytes(*bytes).isEmpty())
        return QList<DropboxAccount>();
    const nlohmann::ordered_json document =
        nlohmann::ordered_json::parse(bytes->cbegin(), bytes->cend(), nullptr, false);
    if (!document.is_object())
        return QList<DropboxAccount>();
    QList<DropboxAccount> accounts;
    for (const auto &[name, account] : document.items()) {
        DropboxAccount entry{QString::fromStdString(name), QString()};
        if (account.is_object() && account.contains("path") && account.at("path").is_string())
            entry.path = QString::fromStdString(account.at("path").get<std::string>());
        accounts.append(entry);
    }
    return accounts;
}

QStringList vd_FileUtils::dropBoxFolderGETAll()
{
    QStringList folders;
    if (const std::optional<QList<DropboxAccount>> accounts = getDropboxInfoJSONDict()) {
        for (const DropboxAccount &account : *accounts) {
            if (!account.path.isEmpty())
                folders.append(account.path);
        }
    }
    if (!folders.isEmpty())
        return folders;
    if (const std::optional<QString> legacy = dropboxPathOLD()) {
        folders.append(*legacy);
        digForDropboxFolders(folders);
        return folders;
    }
    const QString standard = homeFile(QStringLiteral("Dropbox"));
    if (QFileInfo::exists(standard))
        folders.append(standard);
    return folders;
}

void vd_FileUtils::digForDropboxFolders(QStringList &folders)
{
    const QDir home = QDir::home();
    const QStringList names = home.entryList({QStringLiteral("Dropbox *")},
                                             QDir::Dirs | QDir::Hidden | QDir::NoDotAndDotDot, QDir::Name);
    for (const QString &name : names) {
        const QString path = home.filePath(name);
        if (!folders.contains(path))
            folders.append(path);
    }
}

QString vd_FileUtils::dropBoxFolderGET(const QString &path)
{
    for (const QString &folder : dropBoxFolderGETAll()) {
        if (path.startsWith(folder))
            return folder;
    }
    const QString standard = homeFile(QStringLiteral("Dropbox"));
    return QFileInfo::exists(standard) ? standard : QString();
}

std::optional<QString> vd_FileUtils::findVandrelFolder(const QString &dropboxFolder, const QDateTime &now)
{
    const QString cached = UserDefaults::stringValue(SettingsKeys::LastBestPath);
    if (!cached.isEmpty() && QFileInfo::exists(cached))
        return cached;
    if (UserDefaults::contains(SettingsKeys::LastBestPath))
        resetVandrelFolderCache();

    DeepSearch search{JSONDate(now)};
    if (search.walk(dropboxFolder, 1) || !search.bestPath.isEmpty())
        return search.bestPath;
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
    if (QFileInfo::exists(candidate + u'/' + kMarkerFile))
        return candidate;
    const std::optional<QString> found = findVandrelFolder(dropboxFolder);
    if (found && QFileInfo::exists(*found))
        return found;
    return std::nullopt;
}

QStringList vd_FileUtils::dropBoxFolderVandrelAll()
{
    QStringList roots;
    for (const QString &folder : dropBoxFolderGETAll()) {
        if (const std::optional<QString> root = dropBoxFolderVandrel(folder))
            roots.append(*root);
    }
    return roots;
}

std::optional<QString> vd_FileUtils::googleDriveFolder()
{
    const QString folder = homeFile(QStringLiteral("GDrive"));
    if (!QFileInfo::exists(folder))
        return std::nullopt;
    return folder;
}

std::optional<QString> vd_FileUtils::googleDriveFolderVandrel()
{
    const std::optional<QString> folder = googleDriveFolder();
    if (!folder)
        return std::nullopt;
    return createdFolder(*folder + u'/' + kAppFolder);
}

QStringList vd_FileUtils::storageFoldersDropBoxGDriveEtc()
{
    QStringList roots = dropBoxFolderVandrelAll();
    if (const std::optional<QString> googleDrive = googleDriveFolderVandrel())
        roots.append(*googleDrive);
    return roots;
}

QString vd_FileUtils::getDefaultDropBoxUploadsFolderROOT(const QString &storageRoot)
{
    if (storageRoot.isEmpty())
        return QString();
    return createdFolder(storageRoot + QStringLiteral("/uploads"));
}

QString vd_FileUtils::getDefaultDropBoxUploadsFolder(const QString &storageRoot)
{
    const QString uploads = getDefaultDropBoxUploadsFolderROOT(storageRoot);
    if (uploads.isEmpty())
        return QString();
    return createdFolder(getFileByDatePath(uploads));
}

QString vd_FileUtils::getDefaultMoveFromFolder()
{
    QString downloads = homeFile(QStringLiteral("Downloads"));
    const QStringList located = QStandardPaths::standardLocations(QStandardPaths::DownloadLocation);
    if (!located.isEmpty())
        downloads = located.last();
    return createdFolder(getFileByDatePath(downloads + QStringLiteral("/From Dropbox")));
}
