#include "handlers/Listings.h"

#include "handlers/ItemRecords.h"
#include "handlers/Places.h"
#include "handlers/SpotlightSearch.h"
#include "utils/vd_FileUtils.h"
#include "utils/vd_SimpleUtils.h"

#include <QDir>
#include <QFileInfo>
#include <QJsonObject>

namespace {

QString lastComponent(const QString &path)
{
    QString trimmed = path;
    while (trimmed.size() > 1 && trimmed.endsWith(u'/'))
        trimmed.chop(1);
    return trimmed.section(u'/', -1);
}

QJsonArray doFolderListing(const QString &folder)
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

QJsonArray doRoots()
{
    QJsonArray records;
    for (const QString &root : Places::homeVolumePaths())
        records.append(ItemRecords::fileInfoDict(root));
    return records;
}

QJsonArray doICloudListing(const QString &folder)
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

QJsonArray doIPhotoListing(const QString &path)
{
    if (path == Places::iPhotoPath())
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
        return SpotlightSearch::doSpotlightSearch(path, QStringLiteral("public.image"), QString(), QString());
    return doFolderListing(path);
}

} // namespace

QJsonArray Listings::doListing(const QString &folder)
{
    if (folder.isEmpty())
        return doRoots();
    const QString iPhoto = Places::iPhotoPath();
    if (!iPhoto.isEmpty() && folder.contains(iPhoto))
        return doIPhotoListing(folder);
    if (folder == Places::iCloudPath())
        return doICloudListing(folder);
    return doFolderListing(folder);
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
