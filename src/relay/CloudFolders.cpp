#include "relay/CloudFolders.h"

#include "relay/RandomToken.h"

#include <QDate>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>

#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <map>

namespace {

// Names of this length or more in the computers folder are sync-conflict copies.
constexpr qsizetype kConflictedNameLength = 61;
constexpr qint64 kMaxComputerFileBytes = 64 * 1024;
constexpr int kMaxComputerFiles = 2000;

QString canonicalFolder(const QString &path)
{
    return QFileInfo(path).canonicalFilePath();
}

bool isInside(const QString &canonicalRoot, const QString &canonicalPath)
{
    return !canonicalRoot.isEmpty() && canonicalPath.startsWith(canonicalRoot + u'/');
}

CloudFolders::Failure badCloud()
{
    return {400, "bad_request", QStringLiteral("The cloud folder index is not one of this relay's folders.")};
}

} // namespace

CloudFolders::CloudFolders(const QStringList &folders)
    : m_folders(folders)
{
    for (const QString &folder : folders)
        m_roots.append(QDir::cleanPath(QDir(folder).absolutePath() + QStringLiteral("/Apps/vandrel")));
}

QJsonArray CloudFolders::computers() const
{
    std::map<QString, QJsonObject> newest;
    for (int cloud = 0; cloud < count(); ++cloud) {
        const QDir folder(m_roots[cloud] + QStringLiteral("/data.vdldata/computers"));
        const QFileInfoList files = folder.entryInfoList({QStringLiteral("*.json")}, QDir::Files, QDir::Name);
        int read = 0;
        for (const QFileInfo &info : files) {
            if (info.fileName().size() >= kConflictedNameLength || info.size() > kMaxComputerFileBytes)
                continue;
            if (++read > kMaxComputerFiles)
                break;
            QFile file(info.filePath());
            if (!file.open(QIODevice::ReadOnly))
                continue;
            const QJsonObject record = QJsonDocument::fromJson(file.read(kMaxComputerFileBytes)).object();
            const QString id = record.value(QStringLiteral("computer_id")).toString();
            if (id.isEmpty())
                continue;
            const QJsonObject entry{
                {QStringLiteral("computer_id"), id},
                {QStringLiteral("computer_name"), record.value(QStringLiteral("computer_name")).toString()},
                {QStringLiteral("pword_required"), record.value(QStringLiteral("pword_required")).toBool()},
                {QStringLiteral("app_version"), record.value(QStringLiteral("app_version")).toString()},
                {QStringLiteral("date"), record.value(QStringLiteral("last_updated")).toDouble()},
                {QStringLiteral("cloud"), cloud},
                {QStringLiteral("storage_root_name"), QFileInfo(m_folders[cloud]).fileName()},
            };
            const auto found = newest.find(id);
            if (found == newest.end() || found->second.value(QStringLiteral("date")).toDouble() <
                                             entry.value(QStringLiteral("date")).toDouble())
                newest[id] = entry;
        }
    }
    std::vector<QJsonObject> list;
    for (auto &entry : newest)
        list.push_back(std::move(entry.second));
    std::stable_sort(list.begin(), list.end(), [](const QJsonObject &a, const QJsonObject &b) {
        return a.value(QStringLiteral("date")).toDouble() > b.value(QStringLiteral("date")).toDouble();
    });
    QJsonArray out;
    for (const QJsonObject &entry : list)
        out.append(entry);
    return out;
}

std::optional<QString> CloudFolders::resolveInside(const QString &root, const QString &relativePath)
{
    if (relativePath.isEmpty() || relativePath.size() > 4096 || relativePath.startsWith(u'/') ||
        relativePath.contains(QChar(0)))
        return std::nullopt;
    for (const QString &part : relativePath.split(u'/')) {
        if (part.isEmpty() || part == QStringLiteral(".") || part == QStringLiteral(".."))
            return std::nullopt;
    }
    const QString canonicalRoot = canonicalFolder(root);
    const QFileInfo target(root + u'/' + relativePath);
    const QString canonical = target.canonicalFilePath();
    if (!isInside(canonicalRoot, canonical) || !QFileInfo(canonical).isFile())
        return std::nullopt;
    return canonical;
}

bool CloudFolders::isSafeFileName(const QString &name)
{
    return !name.isEmpty() && name != QStringLiteral(".") && name != QStringLiteral("..") &&
           !name.contains(u'/') && !name.contains(QChar(0)) && name.toUtf8().size() <= 200 &&
           std::none_of(name.begin(), name.end(), [](QChar c) { return c.unicode() < 0x20; });
}

std::variant<CloudFolders::OpenedFile, CloudFolders::Failure>
CloudFolders::openForDownload(int cloud, const QString &relativePath) const
{
    if (cloud < 0 || cloud >= count())
        return badCloud();
    const std::optional<QString> path = resolveInside(m_roots[cloud], relativePath);
    if (!path)
        return Failure{404, "not_found", QStringLiteral("No such file in the cloud folder.")};
    // The resolved path has no links left; one that appears now is refused rather than followed.
    const int fd = ::open(QFile::encodeName(*path).constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    struct stat status = {};
    if (fd < 0 || ::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
        if (fd >= 0)
            ::close(fd);
        return Failure{404, "not_found", QStringLiteral("No such file in the cloud folder.")};
    }
    return OpenedFile{fd, QFileInfo(*path).fileName()};
}

std::variant<CloudFolders::UploadTarget, CloudFolders::Failure>
CloudFolders::createUpload(int cloud, const QString &name) const
{
    if (cloud < 0 || cloud >= count())
        return badCloud();
    if (!isSafeFileName(name))
        return Failure{400, "bad_name",
                       QStringLiteral("The file name is empty, too long or not a plain name.")};
    const QString root = m_roots[cloud];
    const QDate today = QDate::currentDate();
    const QString folder = root + QStringLiteral("/uploads/%1/%2").arg(today.year()).arg(today.month());
    QDir().mkpath(folder);
    if (!isInside(canonicalFolder(root), canonicalFolder(folder)))
        return Failure{500, "storage_error", QStringLiteral("The uploads folder cannot be used.")};
    const QString temporary = canonicalFolder(folder) + QStringLiteral("/.upload-") + randomToken(12);
    const int fd = ::open(QFile::encodeName(temporary).constData(),
                          O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (fd < 0)
        return Failure{500, "storage_error", QStringLiteral("The upload could not be stored.")};
    return UploadTarget{fd, temporary};
}

std::optional<QString> CloudFolders::finishUpload(int cloud, const QString &temporaryPath,
                                                  const QString &name) const
{
    const QFileInfo temporary(temporaryPath);
    const QString folder = temporary.path();
    const QString stem = QFileInfo(name).completeBaseName();
    const QString suffix = QFileInfo(name).suffix();
    for (int attempt = 1; attempt <= 1000; ++attempt) {
        QString candidate = name;
        if (attempt > 1) {
            candidate = stem.isEmpty() || suffix.isEmpty() || name.startsWith(u'.')
                            ? QStringLiteral("%1 (%2)").arg(name).arg(attempt)
                            : QStringLiteral("%1 (%2).%3").arg(stem).arg(attempt).arg(suffix);
        }
        const QString target = folder + u'/' + candidate;
        if (::renameat2(AT_FDCWD, QFile::encodeName(temporaryPath).constData(), AT_FDCWD,
                        QFile::encodeName(target).constData(), RENAME_NOREPLACE) == 0)
            return QDir(canonicalFolder(m_roots[cloud])).relativeFilePath(target);
        if (errno != EEXIST)
            break;
    }
    QFile::remove(temporaryPath);
    return std::nullopt;
}
