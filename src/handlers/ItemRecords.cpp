#include "handlers/ItemRecords.h"

#include "handlers/Listings.h"
#include "handlers/SearchIndex.h"
#include "handlers/vd_FileCompareCache.h"
#include "metadata/MetadataIndex.h"
#include "utils/vd_FileUtils.h"

#include <QCollator>
#include <QDir>
#include <QFileInfo>
#include <QLocale>

#include <sys/stat.h>

#include <algorithm>
#include <cmath>

namespace {

constexpr int kWholeListLimit = 72;
constexpr int kPageSize = 40;
constexpr double kPreviewWidth = 768;
constexpr double kPreviewHeight = 1024;

double number(const QVariantMap &item, const char *attribute)
{
    return item.value(QLatin1String(attribute)).toDouble();
}

QString extensionOf(const QString &path)
{
    return QFileInfo(path).suffix();
}

} // namespace

std::optional<QVariantMap> ItemRecords::metadataFor(const QString &path)
{
    const MetadataIndex *index = SearchIndex::current();
    return index ? index->item(path) : std::nullopt;
}

QJsonObject ItemRecords::fileInfoDict(const QString &path)
{
    QJsonObject record{{QStringLiteral("path"), path}};
    struct stat info;
    const bool known = ::stat(QFile::encodeName(path).constData(), &info) == 0;
    record.insert(QStringLiteral("mod_date"),
                  known ? double(info.st_mtim.tv_sec) + double(info.st_mtim.tv_nsec) / 1e9 : 0.0);
    if (known) {
        record.insert(QStringLiteral("dir"), S_ISDIR(info.st_mode));
        if (!S_ISDIR(info.st_mode))
            record.insert(QStringLiteral("size"), qint64(info.st_size));
    }
    record.insert(QStringLiteral("pkg"), isSealedPackage(path));
    record.insert(QStringLiteral("display"), displayNameAtPath(path));
    return record;
}

bool ItemRecords::isSealedPackage(const QString &path)
{
    // Linux has no bundles of its own: a folder is a package only where the index knows it as one (an
    // application bundle copied from a Mac, say). Photo libraries are browsed like folders all the same.
    const std::optional<QVariantMap> item = metadataFor(path);
    if (!item)
        return false;
    const QStringList tree = item->value(QStringLiteral("kMDItemContentTypeTree")).toStringList();
    const bool package = tree.contains(QStringLiteral("com.apple.package")) ||
                         tree.contains(QStringLiteral("com.apple.application-bundle"));
    const QString iPhoto = Listings::iPhotoPath();
    return package && (iPhoto.isEmpty() || path != iPhoto) && extensionOf(path) != u"aplibrary";
}

QString ItemRecords::displayNameAtPath(const QString &path)
{
    QString name = QFileInfo(path).fileName();
    if (extensionOf(path).startsWith(u"eml")) {
        if (const std::optional<QVariantMap> item = metadataFor(path)) {
            const QString subject = item->value(QStringLiteral("kMDItemDisplayName")).toString();
            if (!subject.isEmpty())
                name = subject;
        }
    }
    if (name.isEmpty()) {
        QString trimmed = path;
        while (trimmed.size() > 1 && trimmed.endsWith(u'/'))
            trimmed.chop(1);
        name = trimmed.section(u'/', -1);
        if (name.isEmpty())
            name = trimmed;
    }
    return name;
}

void ItemRecords::finderSortWithLocale(QJsonArray &records)
{
    QLocale locale;
    // The C and POSIX locales would turn off numeric ordering and accents: sort as in English then.
    if (locale.language() == QLocale::C)
        locale = QLocale(QLocale::English, QLocale::UnitedStates);
    QCollator loose(locale);
    loose.setCaseSensitivity(Qt::CaseInsensitive);
    loose.setNumericMode(true);
    QCollator strict(locale);
    strict.setNumericMode(true);
    std::vector<QJsonObject> items;
    items.reserve(size_t(records.size()));
    for (const QJsonValue &record : records)
        items.push_back(record.toObject());
    std::stable_sort(items.begin(), items.end(), [&](const QJsonObject &a, const QJsonObject &b) {
        const QString left = a.value(QStringLiteral("display")).toString();
        const QString right = b.value(QStringLiteral("display")).toString();
        int order = loose.compare(left, right);
        if (order == 0)
            order = strict.compare(left, right);
        if (order == 0)
            order = left.compare(right);
        return order < 0;
    });
    records = QJsonArray();
    for (const QJsonObject &item : items)
        records.append(item);
}

QJsonArray ItemRecords::pageOf(const QJsonArray &records, const QJsonObject &request, QJsonObject &result)
{
    const qint64 count = records.size();
    const qint64 page = request.value(QStringLiteral("result_page")).toVariant().toLongLong();
    result.insert(QStringLiteral("total_item_count"), count);
    if (count <= kWholeListLimit) {
        result.insert(QStringLiteral("page_size"), count);
        result.insert(QStringLiteral("num_pages"), 1);
        return records;
    }
    result.insert(QStringLiteral("page_size"), kPageSize);
    // One page more than needed when the count is a multiple of 40: the WebApp expects it so.
    result.insert(QStringLiteral("num_pages"), count / kPageSize + 1);
    QJsonArray items;
    // A negative page is far past the end, as the offset counts unsigned.
    if (page < 0 || page * kPageSize >= count)
        return items;
    for (qint64 i = page * kPageSize; i < std::min(count, (page + 1) * kPageSize); ++i)
        items.append(records.at(i));
    return items;
}

void ItemRecords::polishResults(QJsonArray &records, const QJsonObject &request)
{
    vd_FileCompareCache::refreshMatchedFilesCache(false);
    const QString storageFolder = request.value(QStringLiteral("vandrel_folder")).toString();
    const QString dropbox = vd_FileUtils::dropBoxFolderGET(storageFolder);
    const auto startsWith = [](const QString &path, const QString &prefix) {
        return !prefix.isEmpty() && path.startsWith(prefix);
    };
    for (qsizetype i = 0; i < records.size(); ++i) {
        QJsonObject record = records.at(i).toObject();
        const QString path = record.value(QStringLiteral("path")).toString();
        if (path.isEmpty())
            continue;
        const bool inDropbox = startsWith(path, dropbox);
        if (inDropbox)
            record.insert(QStringLiteral("in_db"), true);
        if (startsWith(path, storageFolder))
            record.insert(QStringLiteral("in_uploads"), true);
        if (!inDropbox) {
            const std::optional<QString> match =
                vd_FileCompareCache::getCompareCache(storageFolder)->matchingPath(path);
            if (match && startsWith(*match, dropbox))
                record.insert(QStringLiteral("matching_path"), *match);
            if (okToUpload(path))
                record.insert(QStringLiteral("up_ok"), true);
        }
        record.insert(QStringLiteral("extra_info"), extraInfoString(path));
        const QSizeF preview = previewSize(path);
        record.insert(QStringLiteral("preview_width"), qint64(preview.width()));
        record.insert(QStringLiteral("preview_height"), qint64(preview.height()));
        records[i] = record;
    }
}

bool ItemRecords::okToUpload(const QString &path)
{
    if (path.size() < 10)
        return false;
    const QString home = QDir::homePath();
    if (path == home)
        return false;
    if (path.startsWith(home) && QFileInfo(path).isDir()) {
        static const char *const topFolders[] = {"/Desktop",  "/Documents", "/Downloads",
                                                 "/Dropbox",  "/Movies",    "/Music",
                                                 "/Pictures", "/Public",    "/Sites"};
        if (path.split(u'/').size() < 5) {
            for (const char *folder : topFolders) {
                if (path.endsWith(QLatin1String(folder)))
                    return false;
            }
        }
        for (const char *library : {"/Pictures/Aperture Library", "/Pictures/iPhoto Library", "/Music/iTunes",
                                    "/Music/iTunes/iTunes Media"}) {
            if (path.endsWith(QLatin1String(library)))
                return false;
        }
    }
    return !path.endsWith(u"/System") && !path.endsWith(u"/Library");
}

QStringList ItemRecords::getSubFolders(const QString &folder)
{
    const QString base = folder.isEmpty() ? QStringLiteral("/") : folder;
    QStringList folders;
    const QFileInfoList children =
        QDir(base).entryInfoList(QDir::Dirs | QDir::NoDotAndDotDot | QDir::NoSymLinks, QDir::Unsorted);
    for (const QFileInfo &child : children) {
        if (!isSealedPackage(child.filePath()))
            folders << child.filePath();
    }
    return folders;
}

QSizeF ItemRecords::mediaSize(const QVariantMap &item)
{
    double width = number(item, "kMDItemPixelWidth");
    if (width <= 0)
        width = number(item, "kMDItemPageWidth");
    double height = number(item, "kMDItemPixelHeight");
    if (height <= 0)
        height = number(item, "kMDItemPageHeight");
    return {width, height};
}

QSizeF ItemRecords::previewSize(const QString &path)
{
    const QSizeF box(kPreviewWidth, kPreviewHeight);
    const std::optional<QVariantMap> item = metadataFor(path);
    if (!item)
        return box;
    const QSizeF media = mediaSize(*item);
    if (!(media.width() > 0) || !(media.height() > 0))
        return box;
    if (media.width() <= kPreviewWidth && media.height() <= kPreviewHeight)
        return media;
    double scale = kPreviewWidth / media.width();
    if (std::isnan(scale))
        scale = kPreviewHeight / media.height();
    scale = std::min(scale, kPreviewHeight / media.height());
    return {media.width() * scale, media.height() * scale};
}

std::optional<QString> ItemRecords::mdItemString(const QVariantMap &item, const QString &attribute)
{
    if (!item.contains(attribute))
        return std::nullopt;
    const QVariant value = item.value(attribute);
    if (value.typeId() == QMetaType::QStringList || value.typeId() == QMetaType::QVariantList)
        return value.toStringList().join(u',');
    return value.toString();
}

QString ItemRecords::add(const std::optional<QString> &value, const QString &accumulated,
                         const QString &format)
{
    if (!value || value->isEmpty())
        return accumulated;
    QString result = accumulated;
    if (!result.isEmpty())
        result += QStringLiteral(", ");
    return result + (format.isEmpty() ? *value : QString(format).replace(QStringLiteral("%@"), *value));
}

QString ItemRecords::extraInfoString(const QString &path)
{
    const std::optional<QVariantMap> item = metadataFor(path);
    if (!item)
        return QString();
    QString summary;
    const QSizeF media = mediaSize(*item);
    if (media.width() > 0)
        summary = QStringLiteral("%1 x %2 ").arg(qint64(media.width())).arg(qint64(media.height()));
    summary =
        add(mdItemString(*item, QStringLiteral("kMDItemNumberOfPages")), summary, QStringLiteral("%@ pages"));
    summary =
        add(mdItemString(*item, QStringLiteral("kMDItemKeywords")), summary, QStringLiteral("keywords: %@"));
    summary =
        add(mdItemString(*item, QStringLiteral("kMDItemOMUserTags")), summary, QStringLiteral("tags: %@"));
    return summary;
}
