#include "utils/vd_FileUtils.h"

#include "support/Encodings.h"
#include "support/ZlibJsonPacker.h"
#include "utils/PathHelpers.h"
#include "utils/UtilsLog.h"
#include "utils/vd_SimpleUtils.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QSaveFile>
#include <QSet>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <mutex>

namespace {

constexpr qint64 kMaxJsonFileBytes = 16 * 1024 * 1024;

// How the log line names what a file held instead of an object.
QString describeJsonKind(const QJsonValue &value)
{
    switch (value.type()) {
    case QJsonValue::Array:
        return QStringLiteral("QJsonArray");
    case QJsonValue::String:
        return QStringLiteral("QString");
    case QJsonValue::Double:
        return QStringLiteral("double");
    case QJsonValue::Bool:
        return QStringLiteral("bool");
    case QJsonValue::Null:
        return QStringLiteral("null");
    default:
        return QStringLiteral("nil");
    }
}

// Parses any JSON text, scalars included; Undefined when the text is not JSON.
QJsonValue parseJsonValue(const QByteArray &bytes)
{
    // Wrapping in brackets lets the document parser accept a top-level scalar; a second element means the
    // text was not a single JSON value.
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson('[' + bytes + ']', &error);
    if (error.error != QJsonParseError::NoError || !document.isArray() || document.array().size() != 1)
        return QJsonValue(QJsonValue::Undefined);
    return document.array().first();
}

} // namespace

std::optional<QString> vd_FileUtils::storageRootOwnFolder(const QString &storageRoot, const QString &relative,
                                                          bool create)
{
    if (storageRoot.isEmpty())
        return std::nullopt;
    if (!create && !QFileInfo::exists(storageRoot))
        return std::nullopt;
    QDir().mkpath(storageRoot);
    int folder = ::open(QFile::encodeName(storageRoot).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0)
        return std::nullopt;
    QString path = storageRoot;
    for (const QString &component : relative.split(u'/', Qt::SkipEmptyParts)) {
        path += u'/' + component;
        const QByteArray name = QFile::encodeName(component);
        if (create)
            ::mkdirat(folder, name.constData(), 0777);
        const int next = ::openat(folder, name.constData(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
        const int error = errno;
        ::close(folder);
        if (next < 0) {
            if (error == ELOOP || error == ENOTDIR) {
                static std::mutex loggedLock;
                static QSet<QString> logged; // guarded by loggedLock
                const std::lock_guard lock(loggedLock);
                if (!logged.contains(path)) {
                    logged.insert(path);
                    qCWarning(lcUtils).noquote()
                        << QStringLiteral("refusing %1: it is a symbolic link or not a folder, and the "
                                          "agent's own folders must lie inside the storage folder")
                               .arg(path);
                }
            }
            return std::nullopt;
        }
        folder = next;
    }
    ::close(folder);
    return path;
}

QString vd_FileUtils::getDataFolderPath(const QString &storageRoot)
{
    return storageRootOwnFolder(storageRoot, QStringLiteral("data.vdldata"), true).value_or(QString());
}

QString vd_FileUtils::getRootsPath(const QString &storageRoot)
{
    return storageRootOwnFolder(storageRoot, QStringLiteral("data.vdldata/computers"), true)
        .value_or(QString());
}

QString vd_FileUtils::getFileByDatePath(const QString &baseFolder, const QDateTime &now)
{
    qint32 year = 0;
    qint32 month = 0;
    vd_SimpleUtils::time(now, &year, &month, nullptr, nullptr, nullptr, nullptr);
    return baseFolder + u'/' + IntToString(year) + u'/' + IntToString(month);
}

QJsonObject vd_FileUtils::readJsonFileMutableDictionary(const QString &path)
{
    // The files come from the WebApp, other computers and the Dropbox client. Only a regular file is read:
    // opening without blocking and checking what was opened means a pipe put in a file's place cannot stall
    // the reader. None of them comes near the size limit, so reading a huge one would only fill memory.
    const int fd = ::open(QFile::encodeName(path).constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0)
        return {};
    QFile file;
    struct stat info
    {};
    if (::fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) ||
        !file.open(fd, QIODevice::ReadOnly, QFileDevice::AutoCloseHandle)) {
        ::close(fd);
        return {};
    }
    if (info.st_size > kMaxJsonFileBytes) {
        qCWarning(lcUtils).noquote()
            << QStringLiteral("%1 is too large to read as JSON (%2 bytes)").arg(path).arg(info.st_size);
        return {};
    }
    return jsonObjectFromBytes(file.read(kMaxJsonFileBytes));
}

QJsonObject vd_FileUtils::jsonObjectFromBytes(const QByteArray &bytes)
{
    // Editors on other systems start UTF-8 files with a byte-order mark; the parser would reject the text.
    static const QByteArray byteOrderMark("\xEF\xBB\xBF");
    const QJsonValue value =
        parseJsonValue(bytes.startsWith(byteOrderMark) ? bytes.mid(byteOrderMark.size()) : bytes);
    if (!value.isObject()) {
        qCWarning(lcUtils).noquote()
            << QStringLiteral(" you said it was a dictionary! %1").arg(describeJsonKind(value));
        return {};
    }
    return value.toObject();
}

std::optional<QByteArray> vd_FileUtils::JSONDataFromObj(const QJsonValue &value)
{
    if (value.isObject())
        return QJsonDocument(value.toObject()).toJson(QJsonDocument::Indented);
    if (value.isArray())
        return QJsonDocument(value.toArray()).toJson(QJsonDocument::Indented);
    return std::nullopt;
}

void vd_FileUtils::writeJsonFile(const QJsonValue &value, const QString &path)
{
    const std::optional<QByteArray> data = JSONDataFromObj(value);
    if (!data)
        return;
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly)) {
        qCWarning(lcUtils).noquote() << QStringLiteral("cannot write %1: %2").arg(path, file.errorString());
        return;
    }
    file.write(*data);
    if (!file.commit())
        qCWarning(lcUtils).noquote() << QStringLiteral("cannot write %1: %2").arg(path, file.errorString());
}

std::optional<QString> vd_FileUtils::base64URLSafeZlibJSON(const QJsonValue &value)
{
    // Answers, one packer for all: a folder's long sub-folder list is deflated once, not once an answer.
    static auto *packer = new ZlibJsonPacker;
    std::optional<QByteArray> compressed;
    if (value.isObject())
        compressed = packer->pack(value.toObject());
    else if (value.isArray())
        compressed = zlibDeflate(QJsonDocument(value.toArray()).toJson(QJsonDocument::Compact));
    else
        return std::nullopt;
    if (!compressed)
        return std::nullopt;
    return base64Encoding_URL_SAFE(*compressed);
}

double vd_FileUtils::JSONDate(const QDateTime &date)
{
    return double(date.toMSecsSinceEpoch()) / 1000.0;
}

QDateTime vd_FileUtils::dateFromJSON(const QJsonValue &value)
{
    double seconds = 0;
    if (value.isDouble())
        seconds = value.toDouble();
    else if (value.isString())
        seconds = value.toString().trimmed().toDouble();
    // Dates come from files other programs write: keep absurd values inside what a date can hold.
    constexpr double kLimit = 1e12;
    if (!std::isfinite(seconds))
        seconds = 0;
    seconds = std::clamp(seconds, -kLimit, kLimit);
    return QDateTime::fromMSecsSinceEpoch(qint64(seconds * 1000.0), Qt::UTC);
}
