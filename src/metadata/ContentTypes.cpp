#include "metadata/ContentTypes.h"

#include <QMimeDatabase>

#include <algorithm>

namespace {

struct MimeRule
{
    const char *mime;
    const char *identifier;
};

// MIME names that have an identifier of their own. Anything else is reached through its MIME parents.
constexpr MimeRule kMimeRules[] = {
    {"inode/directory", "public.folder"},
    {"application/pdf", "com.adobe.pdf"},
    {"image/jpeg", "public.jpeg"},
    {"image/png", "public.png"},
    {"image/gif", "com.compuserve.gif"},
    {"image/tiff", "public.tiff"},
    {"image/heif", "public.heic"},
    {"image/webp", "org.webmproject.webp"},
    {"image/svg+xml", "public.svg-image"},
    {"text/plain", "public.plain-text"},
    {"text/html", "public.html"},
    {"text/csv", "public.comma-separated-values-text"},
    {"message/rfc822", "public.email-message"},
    {"application/zip", "com.pkware.zip-archive"},
    {"application/x-tar", "public.tar-archive"},
    {"application/gzip", "org.gnu.gnu-zip-archive"},
    {"application/x-compressed-tar", "org.gnu.gnu-zip-tar-archive"},
    {"application/x-7z-compressed", "org.7-zip.7-zip-archive"},
    {"application/vnd.rar", "com.rarlab.rar-archive"},
    {"application/x-xz", "org.tukaani.xz-archive"},
    {"application/x-bzip", "public.bzip2-archive"},
    {"application/vnd.openxmlformats-officedocument.wordprocessingml.document",
     "org.openxmlformats.wordprocessingml.document"},
    {"application/vnd.openxmlformats-officedocument.spreadsheetml.sheet",
     "org.openxmlformats.spreadsheetml.sheet"},
    {"application/vnd.openxmlformats-officedocument.presentationml.presentation",
     "org.openxmlformats.presentationml.presentation"},
    {"application/vnd.oasis.opendocument.text", "org.oasis-open.opendocument.text"},
    {"application/vnd.oasis.opendocument.spreadsheet", "org.oasis-open.opendocument.spreadsheet"},
    {"application/vnd.oasis.opendocument.presentation", "org.oasis-open.opendocument.presentation"},
    {"application/msword", "com.microsoft.word.doc"},
    {"application/vnd.ms-excel", "com.microsoft.excel.xls"},
    {"application/vnd.ms-powerpoint", "com.microsoft.powerpoint.ppt"},
};

// Source languages: their MIME types (and subclasses) conform to public.source-code.
constexpr const char *kSourceMimes[] = {
    "text/x-csrc",
    "text/x-chdr",
    "text/x-c++src",
    "text/x-c++hdr",
    "text/x-python",
    "text/x-python3",
    "text/x-java",
    "text/x-go",
    "text/rust",
    "text/x-ruby",
    "application/x-perl",
    "application/x-php",
    "text/css",
    "text/javascript",
    "application/javascript",
    "text/x-csharp",
    "text/x-kotlin",
    "text/x-makefile",
    "text/x-cmake",
    "application/x-shellscript",
    "text/x-sql",
    "text/x-lua",
    "text/x-scala",
    "text/x-swift",
    "text/x-typescript",
};

struct IdentifierRule
{
    const char *identifier;
    const char *parents; // blank-separated
};

constexpr IdentifierRule kIdentifierParents[] = {
    {"public.item", ""},
    {"public.content", "public.item"},
    {"public.data", "public.item"},
    {"public.directory", "public.item"},
    {"public.folder", "public.directory"},
    {"public.composite-content", "public.content"},
    {"public.text", "public.data public.content"},
    {"public.plain-text", "public.text"},
    {"public.source-code", "public.plain-text"},
    {"public.html", "public.text"},
    {"public.comma-separated-values-text", "public.text public.spreadsheet"},
    {"public.image", "public.data public.content"},
    {"public.audiovisual-content", "public.data public.content"},
    {"public.movie", "public.audiovisual-content"},
    {"public.audio", "public.audiovisual-content"},
    {"com.adobe.pdf", "public.data public.composite-content"},
    {"public.presentation", "public.composite-content"},
    {"public.spreadsheet", "public.content"},
    {"public.archive", "public.data"},
    {"public.email-message", "public.data public.content"},
    {"com.apple.mail.emlx", "public.email-message"},
    {"public.jpeg", "public.image"},
    {"public.png", "public.image"},
    {"com.compuserve.gif", "public.image"},
    {"public.tiff", "public.image"},
    {"public.heic", "public.image"},
    {"org.webmproject.webp", "public.image"},
    {"public.svg-image", "public.image"},
    {"com.pkware.zip-archive", "public.archive"},
    {"public.tar-archive", "public.archive"},
    {"org.gnu.gnu-zip-archive", "public.archive"},
    {"org.gnu.gnu-zip-tar-archive", "public.archive"},
    {"org.7-zip.7-zip-archive", "public.archive"},
    {"com.rarlab.rar-archive", "public.archive"},
    {"org.tukaani.xz-archive", "public.archive"},
    {"public.bzip2-archive", "public.archive"},
    {"org.openxmlformats.wordprocessingml.document", "public.data public.composite-content"},
    {"org.openxmlformats.spreadsheetml.sheet", "public.data public.spreadsheet"},
    {"org.openxmlformats.presentationml.presentation", "public.data public.presentation"},
    {"org.oasis-open.opendocument.text", "public.data public.composite-content"},
    {"org.oasis-open.opendocument.spreadsheet", "public.data public.spreadsheet"},
    {"org.oasis-open.opendocument.presentation", "public.data public.presentation"},
    {"com.microsoft.word.doc", "public.data public.composite-content"},
    {"com.microsoft.excel.xls", "public.data public.spreadsheet"},
    {"com.microsoft.powerpoint.ppt", "public.data public.presentation"},
};

const QMimeDatabase &mimeDatabase()
{
    static const QMimeDatabase db;
    return db;
}

void appendUnique(QStringList &list, const QString &value)
{
    if (!list.contains(value))
        list.append(value);
}

void appendWithAncestors(QStringList &tree, const QString &identifier)
{
    appendUnique(tree, identifier);
    for (const QString &parent : ContentTypes::identifierParents(identifier))
        appendWithAncestors(tree, parent);
}

// The identifier of a top-level media type, for MIME types no rule names.
QString identifierForMediaType(const QString &mimeName)
{
    if (mimeName.startsWith(u"image/"))
        return QStringLiteral("public.image");
    if (mimeName.startsWith(u"video/"))
        return QStringLiteral("public.movie");
    if (mimeName.startsWith(u"audio/"))
        return QStringLiteral("public.audio");
    if (mimeName.startsWith(u"text/"))
        return QStringLiteral("public.text");
    return {};
}

} // namespace

ContentTypes &ContentTypes::instance()
{
    static ContentTypes types;
    return types;
}

ContentTypes::ContentTypes()
{
    std::lock_guard lock(m_lock);
    registerLocked(QStringLiteral("inode/directory")); // kFolder
}

QString ContentTypes::identifierForMime(const QString &mimeName)
{
    for (const MimeRule &rule : kMimeRules) {
        if (mimeName == QLatin1String(rule.mime))
            return QLatin1String(rule.identifier);
    }
    for (const char *source : kSourceMimes) {
        if (mimeName == QLatin1String(source))
            return QStringLiteral("public.source-code");
    }
    if (mimeName == u"application/x-emlx")
        return QStringLiteral("com.apple.mail.emlx");
    if (mimeName.contains(u"presentation"))
        return QStringLiteral("public.presentation");
    if (mimeName.contains(u"spreadsheet"))
        return QStringLiteral("public.spreadsheet");
    return identifierForMediaType(mimeName);
}

QStringList ContentTypes::identifierParents(const QString &identifier)
{
    for (const IdentifierRule &rule : kIdentifierParents) {
        if (identifier == QLatin1String(rule.identifier))
            return QString::fromLatin1(rule.parents).split(u' ', Qt::SkipEmptyParts);
    }
    if (identifier.startsWith(u"dyn."))
        return {QStringLiteral("public.data")};
    return {};
}

ContentTypes::Code ContentTypes::registerLocked(const QString &mimeName)
{
    if (auto it = m_byMime.find(mimeName); it != m_byMime.end())
        return it->second;
    QStringList tree;
    QString own = identifierForMime(mimeName);
    const QMimeType mime = mimeDatabase().mimeTypeForName(mimeName);
    if (own.isEmpty() && mime.isValid()) {
        for (const QString &ancestor : mime.allAncestors()) {
            own = identifierForMime(ancestor);
            if (!own.isEmpty()) {
                // A subclass keeps a name of its own, conforming to the ancestor's identifier.
                appendUnique(tree, QStringLiteral("dyn.") + mimeName);
                break;
            }
        }
    }
    if (own.isEmpty())
        own = QStringLiteral("dyn.") + mimeName;
    appendWithAncestors(tree, own);
    if (mime.isValid()) {
        for (const QString &ancestor : mime.allAncestors()) {
            const QString id = identifierForMime(ancestor);
            if (!id.isEmpty())
                appendWithAncestors(tree, id);
        }
    }
    const QString media = identifierForMediaType(mimeName);
    if (!media.isEmpty())
        appendWithAncestors(tree, media);
    if (!tree.contains(u"public.data") && !tree.contains(u"public.directory"))
        appendWithAncestors(tree, QStringLiteral("public.data"));
    const Code code = Code(m_types.size());
    m_types.push_back(Type{mimeName, tree});
    m_byMime.emplace(mimeName, code);
    return code;
}

ContentTypes::Code ContentTypes::codeForMime(const QString &mimeName)
{
    std::lock_guard lock(m_lock);
    return registerLocked(mimeName);
}

ContentTypes::Code ContentTypes::codeForFileName(std::string_view name, bool isFolder)
{
    if (isFolder)
        return kFolder;
    // Glob rules look at the last suffix, two for compressed archives ("a.tar.gz"); names without a dot
    // are matched whole ("Makefile").
    const size_t last = name.rfind('.');
    size_t keyStart = 0;
    if (last != std::string_view::npos && last > 0) {
        keyStart = last;
        static constexpr std::string_view kCompressed[] = {".gz", ".bz2", ".xz", ".zst", ".Z", ".lz"};
        const std::string_view suffix = name.substr(last);
        const size_t before = name.rfind('.', last - 1);
        if (before != std::string_view::npos && before > 0 &&
            std::find(std::begin(kCompressed), std::end(kCompressed), suffix) != std::end(kCompressed))
            keyStart = before;
    }
    const std::string key(name.substr(keyStart));
    constexpr size_t kMaxCachedNames = 100000;
    {
        std::lock_guard lock(m_lock);
        if (auto it = m_bySuffix.find(key); it != m_bySuffix.end())
            return it->second;
    }
    const QString fileName = QString::fromUtf8(name.data(), qsizetype(name.size()));
    QString mimeName = mimeDatabase().mimeTypeForFile(fileName, QMimeDatabase::MatchExtension).name();
    if (fileName.section(u'.', -1).startsWith(u"eml", Qt::CaseInsensitive) && fileName.contains(u'.'))
        mimeName = fileName.endsWith(u".emlx", Qt::CaseInsensitive) ? QStringLiteral("application/x-emlx")
                                                                    : QStringLiteral("message/rfc822");
    std::lock_guard lock(m_lock);
    const Code code = registerLocked(mimeName);
    if (keyStart > 0 || m_bySuffix.size() < kMaxCachedNames)
        m_bySuffix.emplace(key, code);
    return code;
}

QString ContentTypes::mimeName(Code code) const
{
    std::lock_guard lock(m_lock);
    return code < m_types.size() ? m_types[code].mime : QString();
}

QString ContentTypes::identifier(Code code) const
{
    std::lock_guard lock(m_lock);
    return code < m_types.size() ? m_types[code].tree.front() : QString();
}

QStringList ContentTypes::tree(Code code) const
{
    std::lock_guard lock(m_lock);
    return code < m_types.size() ? m_types[code].tree : QStringList();
}

std::size_t ContentTypes::count() const
{
    std::lock_guard lock(m_lock);
    return m_types.size();
}
