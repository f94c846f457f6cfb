#include "handlers/ItemRecords.h"

#include "handlers/Places.h"
#include "handlers/SearchIndex.h"
#include "handlers/vd_FileCompareCache.h"
#include "metadata/MetadataIndex.h"
#include "utils/vd_FileUtils.h"

#include <QCollator>
#include <QDir>
#include <QFileInfo>
#include <QLocale>
#include <QSizeF>
#include <QVariantMap>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <ctime>
#include <map>
#include <mutex>

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

// Linux has no bundles of its own; these are the ones people keep on it: application folders (AppImage
// source folders, applications copied from a Mac) and the bundles and libraries that come with them.
bool hasBundleName(const QString &path)
{
    static const QLatin1String kBundleSuffixes[] = {QLatin1String(".app"),    QLatin1String(".AppDir"),
                                                    QLatin1String(".bundle"), QLatin1String(".framework"),
                                                    QLatin1String(".plugin"), QLatin1String(".photolibrary")};
    QStringView name(path);
    while (name.endsWith(u'/'))
        name.chop(1);
    return std::any_of(std::begin(kBundleSuffixes), std::end(kBundleSuffixes), [&](QLatin1String suffix) {
        return name.endsWith(suffix, Qt::CaseInsensitive) && name.size() > suffix.size() &&
               name[name.size() - suffix.size() - 1] != u'/';
    });
}

// For a path known to be a folder: is it a package, which the WebApp shows as a single item?
bool isPackageFolder(const QString &path)
{
    if (!hasBundleName(path))
        return false;
    const QString iPhoto = Places::iPhotoPath();
    return (iPhoto.isEmpty() || path != iPhoto) && extensionOf(path) != u"aplibrary";
}

std::optional<QVariantMap> metadataFor(const QString &path)
{
    const MetadataIndex *index = SearchIndex::current();
    return index ? index->item(path) : std::nullopt;
}

QString displayNameAtPath(const QString &path)
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

bool okToUpload(const QString &path, bool isDirectory)
{
    if (path.size() < 10)
        return false;
    const QString home = QDir::homePath();
    if (path == home)
        return false;
    if (isDirectory && path.startsWith(home)) {
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

bool okToUpload(const QString &path)
{
    return okToUpload(path, QFileInfo(path).isDir());
}

QSizeF mediaSize(const QVariantMap &item)
{
    double width = number(item, "kMDItemPixelWidth");
    if (width <= 0)
        width = number(item, "kMDItemPageWidth");
    double height = number(item, "kMDItemPixelHeight");
    if (height <= 0)
        height = number(item, "kMDItemPageHeight");
    return {width, height};
}

QSizeF previewSize(const std::optional<QVariantMap> &item)
{
    const QSizeF box(kPreviewWidth, kPreviewHeight);
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

std::optional<QString> mdItemString(const QVariantMap &item, const QString &attribute)
{
    if (!item.contains(attribute))
        return std::nullopt;
    const QVariant value = item.value(attribute);
    if (value.typeId() == QMetaType::QStringList || value.typeId() == QMetaType::QVariantList)
        return value.toStringList().join(u',');
    return value.toString();
}

QString add(const std::optional<QString> &value, const QString &accumulated, const QString &format)
{
    if (!value || value->isEmpty())
        return accumulated;
    QString result = accumulated;
    if (!result.isEmpty())
        result += QStringLiteral(", ");
    return result + (format.isEmpty() ? *value : QString(format).replace(QStringLiteral("%@"), *value));
}

QString extraInfoString(const std::optional<QVariantMap> &item)
{
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

} // namespace

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
    record.insert(QStringLiteral("pkg"), known && S_ISDIR(info.st_mode) && isPackageFolder(path));
    record.insert(QStringLiteral("display"), displayNameAtPath(path));
    return record;
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
    // One collation key per record instead of two collations per comparison.
    struct Entry
    {
        QString display;
        QCollatorSortKey key;
        qsizetype index;
    };
    std::vector<Entry> entries;
    entries.reserve(size_t(records.size()));
    for (qsizetype i = 0; i < records.size(); ++i) {
        QString display = records.at(i)[QStringLiteral("display")].toString();
        QCollatorSortKey key = loose.sortKey(display);
        entries.push_back(Entry{std::move(display), std::move(key), i});
    }
    std::stable_sort(entries.begin(), entries.end(), [&](const Entry &a, const Entry &b) {
        int order = a.key.compare(b.key);
        if (order == 0)
            order = strict.compare(a.display, b.display);
        if (order == 0)
            order = a.display.compare(b.display);
        return order < 0;
    });
    QJsonArray sorted;
    for (const Entry &entry : entries)
        sorted.append(records.at(entry.index));
    records = sorted;
}

std::pair<qsizetype, qsizetype> ItemRecords::pageRange(qsizetype count, const QJsonObject &request,
                                                       QJsonObject &result)
{
    const qint64 page = request.value(QStringLiteral("result_page")).toVariant().toLongLong();
    result.insert(QStringLiteral("total_item_count"), qint64(count));
    if (count <= kWholeListLimit) {
        result.insert(QStringLiteral("page_size"), qint64(count));
        result.insert(QStringLiteral("num_pages"), 1);
        return {0, count};
    }
    result.insert(QStringLiteral("page_size"), kPageSize);
    // One page more than needed when the count is a multiple of 40: the WebApp expects it so.
    result.insert(QStringLiteral("num_pages"), qint64(count / kPageSize + 1));
    // A negative page is far past the end, as the offset counts unsigned; a huge one must not overflow.
    if (page < 0 || page >= (count + kPageSize - 1) / kPageSize)
        return {count, 0};
    const qsizetype first = qsizetype(page * kPageSize);
    return {first, std::min<qsizetype>(kPageSize, count - first)};
}

QJsonArray ItemRecords::pageOf(const QJsonArray &records, const QJsonObject &request, QJsonObject &result)
{
    const auto [first, length] = pageRange(records.size(), request, result);
    if (first == 0 && length == records.size())
        return records;
    QJsonArray items;
    for (qsizetype i = first; i < first + length; ++i)
        items.append(records.at(i));
    return items;
}

void ItemRecords::polishResults(QJsonArray &records, const QJsonObject &request)
{
    const QString storageFolder = request.value(QStringLiteral("vandrel_folder")).toString();
    const QString dropbox = vd_FileUtils::dropBoxFolderGET(storageFolder);
    const auto startsWith = [](const QString &path, const QString &prefix) {
        return !prefix.isEmpty() && path.startsWith(prefix);
    };
    const std::shared_ptr<vd_FileCompareCache> compareCache =
        vd_FileCompareCache::getCompareCache(storageFolder);
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
            const std::optional<QString> match = compareCache->matchingPath(path);
            if (match && startsWith(*match, dropbox))
                record.insert(QStringLiteral("matching_path"), *match);
            const QJsonValue directory = record.value(QStringLiteral("dir"));
            if (directory.isBool() ? okToUpload(path, directory.toBool()) : okToUpload(path))
                record.insert(QStringLiteral("up_ok"), true);
        }
        // One read of the index serves both the summary and the preview size.
        const std::optional<QVariantMap> item = metadataFor(path);
        record.insert(QStringLiteral("extra_info"), extraInfoString(item));
        const QSizeF preview = previewSize(item);
        record.insert(QStringLiteral("preview_width"), qint64(preview.width()));
        record.insert(QStringLiteral("preview_height"), qint64(preview.height()));
        records[i] = record;
    }
}

QStringList ItemRecords::getSubFolders(const QString &folder)
{
    const QString base = folder.isEmpty() ? QStringLiteral("/") : folder;
    // Every search answer carries this list. The entry types readdir gives spare a stat per child, which
    // in a folder of thousands is most of the cost; a folder unchanged since the last answer is not read
    // again, as reading thousands of entries (perhaps from disk again) would cost more than the search.
    // A folder changed in the last seconds is always read: a change within its clock tick would not show.
    struct Listing
    {
        dev_t device;
        ino_t inode;
        timespec modified;
        QStringList folders;
    };
    static std::mutex listingsLock;
    static std::map<QString, Listing> listings; // guarded by listingsLock
    constexpr std::size_t kListingsKept = 16;
    DIR *dir = opendir(QFile::encodeName(base).constData());
    if (!dir)
        return {};
    struct stat folderInfo;
    const bool settled =
        fstat(dirfd(dir), &folderInfo) == 0 && std::time(nullptr) - folderInfo.st_mtim.tv_sec > 2;
    if (settled) {
        const std::lock_guard guard(listingsLock);
        const auto found = listings.find(base);
        if (found != listings.end() && found->second.device == folderInfo.st_dev &&
            found->second.inode == folderInfo.st_ino &&
            found->second.modified.tv_sec == folderInfo.st_mtim.tv_sec &&
            found->second.modified.tv_nsec == folderInfo.st_mtim.tv_nsec) {
            closedir(dir);
            return found->second.folders;
        }
    }
    QStringList folders;
    const QString prefix = base.endsWith(u'/') ? base : base + u'/';
    while (const dirent *entry = readdir(dir)) {
        if (entry->d_name[0] == '.')
            continue; // hidden, and "." and ".."
        bool isFolder = entry->d_type == DT_DIR;
        if (entry->d_type == DT_UNKNOWN) {
            struct stat info;
            isFolder =
                fstatat(dirfd(dir), entry->d_name, &info, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(info.st_mode);
        }
        if (!isFolder)
            continue;
        const QString path = prefix + QFile::decodeName(entry->d_name);
        if (!isPackageFolder(path))
            folders << path;
    }
    closedir(dir);
    if (settled) {
        const std::lock_guard guard(listingsLock);
        if (listings.size() >= kListingsKept)
            listings.clear();
        listings.insert_or_assign(base,
                                  Listing{folderInfo.st_dev, folderInfo.st_ino, folderInfo.st_mtim, folders});
    }
    return folders;
}
