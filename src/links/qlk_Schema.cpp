#include "links/qlk_Schema.h"

#include "links/LinksLog.h"
#include "platform/SettingsKeys.h"
#include "platform/UserDefaults.h"
#include "support/vd_Checksum.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <sys/stat.h>

#include <algorithm>

namespace {

// The characters a URL path keeps as they are besides letters, digits and "-._~" (which percent-encoding
// never touches).
const QByteArray kPathCharacters = QByteArrayLiteral("!$&'()*+,/:=@");

QString withoutTrailingSlashes(QString text)
{
    while (text.endsWith(u'/'))
        text.chop(1);
    return text;
}

} // namespace

std::optional<QUrl> qlk_Schema::qlkURLFor(const QString &path)
{
    return qlkURLFor(path, UserDefaults::stringValue(SettingsKeys::LinkServiceURL));
}

std::optional<QUrl> qlk_Schema::qlkURLFor(const QString &path, const QString &linkServiceUrl)
{
    const QFileInfo info(path);
    if (path.isEmpty() || !info.exists())
        return std::nullopt;
    const QString absolute = QDir::cleanPath(info.absoluteFilePath());

    QStringList segments;
    if (info.isDir()) {
        addComponent(QStringLiteral("f"), segments);
        addComponent(QString::number(countFilesUnderFolder(absolute)), segments);
        addComponent(QStringLiteral("FOLDER"), segments);
    } else {
        addComponent(QStringLiteral("p"), segments);
        addComponent(QString::number(fileSizeInBytes(absolute)), segments);
        addComponent(vd_Checksum::crc32(absolute), segments);
    }
    const QStringList components = pathComponents(absolute);
    const qsizetype n = components.size();
    for (qsizetype back = 4; back >= 1; --back) {
        if (n >= back)
            addComponent(components[n - back], segments);
    }

    const QString base = withoutTrailingSlashes(linkServiceUrl.trimmed());
    const QUrl url(base + u'/' + segments.join(u'/'), QUrl::StrictMode);
    if (base.isEmpty() || !url.isValid() || url.isRelative())
        return std::nullopt;
    return url;
}

std::optional<LinkDescription> qlk_Schema::parseQlkUrl(const QUrl &url)
{
    // Split before decoding, so an encoded slash inside a name stays part of that name.
    const QString encodedPath = url.path(QUrl::FullyEncoded);
    QStringList components;
    if (encodedPath.startsWith(u'/')) {
        components << QStringLiteral("/");
        const QStringList pieces = encodedPath.mid(1).split(u'/');
        for (const QString &piece : pieces)
            components << QUrl::fromPercentEncoding(piece.toLatin1());
    }
    const qsizetype c = components.size();
    if (c <= 4)
        return std::nullopt;

    LinkDescription description;
    if (url.host() == u"f") {
        description.dir = true;
        description.numFiles = components[1].toLongLong();
        qCInfo(lcLinks).noquote() << "FOLDER is" << components[2];
    } else {
        description.size = components[1].toLongLong();
        description.crc32 = components[2];
    }
    description.fileName = components[c - 1];
    description.parent = components[c - 2];
    description.grandParent = components[c - 3];
    description.greatGrandParent = components[c - 4];
    return description;
}

std::optional<QUrl> qlk_Schema::schemeUrlForServiceLink(const QUrl &link, const QString &linkServiceUrl)
{
    const QString base = withoutTrailingSlashes(QUrl(linkServiceUrl.trimmed()).toString(QUrl::FullyEncoded));
    const QString text = link.toString(QUrl::FullyEncoded);
    if (base.isEmpty() || !text.startsWith(base + u'/'))
        return std::nullopt;
    const QString rest = text.mid(base.size() + 1);
    const qsizetype slash = rest.indexOf(u'/');
    const QString type = rest.left(slash);
    if (slash <= 0 || !std::all_of(type.cbegin(), type.cend(), [](QChar ch) { return ch.isLetter(); }))
        return std::nullopt;
    const QUrl url(scheme() + QStringLiteral("://") + rest, QUrl::StrictMode);
    if (!url.isValid())
        return std::nullopt;
    return url;
}

void qlk_Schema::addComponent(const QString &text, QStringList &segments)
{
    segments << QString::fromLatin1(QUrl::toPercentEncoding(text, kPathCharacters));
}

qint64 qlk_Schema::countFilesUnderFolder(const QString &path)
{
    return QDir(path).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot).size();
}

qint64 qlk_Schema::fileSizeInBytes(const QString &path)
{
    struct stat st = {};
    if (::lstat(QFile::encodeName(path).constData(), &st) != 0)
        return 0;
    return qint64(st.st_size);
}

QStringList qlk_Schema::pathComponents(const QString &absolutePath)
{
    QStringList components{QStringLiteral("/")};
    components << absolutePath.split(u'/', Qt::SkipEmptyParts);
    return components;
}
