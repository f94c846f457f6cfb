#include "handlers/Listings.h"

#include "handlers/ItemRecords.h"
#include "handlers/SearchHandler.h"
#include "platform/Volumes.h"
#include "utils/vd_FileUtils.h"
#include "utils/vd_SimpleUtils.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonObject>
#include <QStandardPaths>

namespace {

QString existing(const QString &path)
{
    return QFileInfo::exists(path) ? path : QString();
}

QString lastComponent(const QString &path)
{
    QString trimmed = path;
    while (trimmed.size() > 1 && trimmed.endsWith(u'/'))
        trimmed.chop(1);
    return trimmed.section(u'/', -1);
}

} // namespace

QString Listings::iCloudPath()
{
    return existing(QDir::homePath() + QStringLiteral("/Library/Mobile Documents"));
}

QString Listings::iPhotoPath()
{
    for (const char *library : {"/Pictures/iPhoto Library", "/Pictures/iPhoto Library.photolibrary"}) {
        const QString path = existing(QDir::homePath() + QLatin1String(library));
        if (!path.isEmpty())
            return path;
    }
    return QString();
}

QStringList Listings::homeVolumePaths()
{
    QStringList roots{QDir::homePath()};
    for (const QStandardPaths::StandardLocation location :
         {QStandardPaths::DocumentsLocation, QStandardPaths::DesktopLocation,
          QStandardPaths::DownloadLocation})
        roots << QStandardPaths::writableLocation(location);
    if (const QString iCloud = iCloudPath(); !iCloud.isEmpty())
        roots << iCloud;
    if (const QString iPhoto = iPhotoPath(); !iPhoto.isEmpty())
        roots << iPhoto;
    roots += vd_FileUtils::dropBoxFolderGETAll();
    for (const QString &volume : Volumes::localVolumes()) {
        if (volume != u"/home" && volume != u"/net" && volume != u"/Volumes/MobileBackups")
            roots << volume;
    }
    return roots;
}

QJsonArray Listings::doListing(const QString &folder)
{
    if (folder.isEmpty())
        return doRoots();
    const QString iPhoto = iPhotoPath();
    if (!iPhoto.isEmpty() && folder.contains(iPhoto))
        return doIPhotoListing(folder);
    if (folder == iCloudPath())
        return doICloudListing(folder);
    return doFolderListing(folder);
}

QJsonArray Listings::doRoots()
{
    QJsonArray records;
    for (const QString &root : homeVolumePaths())
        records.append(ItemRecords::fileInfoDict(root));
    return records;
}

QJsonArray Listings::doComputerList()
{
    QJsonObject computer{{QStringLiteral("path"), QStringLiteral("")},
                         {QStringLiteral("dir"), true},
                         {QStringLiteral("display"), vd_SimpleUtils::computerName()}};
    // While the password cannot be read every request that needs it is refused: say one is required.
    if (vd_FileUtils::computerPasswordIsSet().value_or(true))
        computer.insert(QStringLiteral("pword_required"), true);
    return {computer};
}

QJsonArray Listings::doFolderListing(const QString &folder)
{
    QJsonArray records;
    if (folder.isEmpty())
        return records;
    const QStringList names =
        QDir(folder).entryList(QDir::AllEntries | QDir::System | QDir::NoDotAndDotDot, QDir::Unsorted);
    for (const QString &name : names)
        records.append(ItemRecords::fileInfoDict(QDir(folder).filePath(name)));
    return records;
}

QJsonArray Listings::doICloudListing(const QString &folder)
{
    QJsonArray records = doFolderListing(folder);
    for (qsizetype i = 0; i < records.size(); ++i) {
        QJsonObject record = records.at(i).toObject();
        record.insert(QStringLiteral("display"),
                      record.value(QStringLiteral("display")).toString().section(u'~', -1));
        records[i] = record;
    }
    return records;
}

QJsonArray Listings::doIPhotoListing(const QString &path)
{
    if (path == iPhotoPath())
        return doFolderListing(path + QStringLiteral("/Masters"));
    // A trailing "/" must not make a year folder read as one of its months.
    QString trimmed = path;
    while (trimmed.size() > 1 && trimmed.endsWith(u'/'))
        trimmed.chop(1);
    const QString parent = QFileInfo(trimmed).path();
    const QString grandparent = QFileInfo(parent).path();
    if (lastComponent(path) == u"Masters" || lastComponent(parent) == u"Masters")
        return doFolderListing(path);
    if (lastComponent(grandparent) == u"Masters")
        return SearchHandler::doSpotlightSearch(path, QStringLiteral("public.image"), QString(), QString());
    return doFolderListing(path);
}
