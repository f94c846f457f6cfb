#include "metadata/Extractors.h"

#include "metadata/MetadataLog.h"

#include <QDataStream>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QStringDecoder>

#include <fcntl.h>
#include <poll.h>
#include <poppler-document.h>
#include <poppler-global.h>
#include <poppler-page.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <time.h>
#include <unistd.h>
#include <vips/vips.h>
#include <zlib.h>

#include <csignal>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>

namespace {

enum class Kind { None, Text, Mail, Pdf, Image, Office };

Kind kindOf(ContentTypes::Code code)
{
    if (code == ContentTypes::kFolder)
        return Kind::None;
    const QStringList tree = ContentTypes::instance().tree(code);
    const QString &own = tree.value(0);
    if (tree.contains(u"public.email-message"))
        return Kind::Mail;
    if (own == u"com.adobe.pdf")
        return Kind::Pdf;
    if (own.startsWith(u"org.openxmlformats.") || own.startsWith(u"org.oasis-open.opendocument."))
        return Kind::Office;
    if (tree.contains(u"public.image"))
        return Kind::Image;
    if (tree.contains(u"public.text"))
        return Kind::Text;
    return Kind::None;
}

// UTF-8 when the bytes are UTF-8 (a sequence cut by the read cap aside), Latin-1 otherwise, which every
// byte sequence is.
QString decodeText(const QByteArray &bytes)
{
    qsizetype end = bytes.size();
    for (qsizetype back = 1; back <= 3 && back <= bytes.size(); ++back) {
        const auto c = uchar(bytes[bytes.size() - back]);
        if ((c & 0xc0) == 0xc0) {
            const int length = c >= 0xf0 ? 4 : c >= 0xe0 ? 3 : 2;
            if (length > back)
                end = bytes.size() - back;
            break;
        }
        if ((c & 0xc0) != 0x80)
            break;
    }
    QStringDecoder utf8(QStringDecoder::Utf8);
    const QString text = utf8.decode(QByteArrayView(bytes).first(end));
    return utf8.hasError() ? QString::fromLatin1(bytes) : text;
}

bool looksBinary(const QByteArray &bytes)
{
    return bytes.left(8192).contains('\0');
}

// The first maxBytes of the file, or none (the extraction then counts as failed).
std::optional<QByteArray> readHead(const QString &path, qint64 maxBytes)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    return file.read(maxBytes);
}

Extraction extractText(const QString &path, qint64 maxBytes)
{
    Extraction result;
    const std::optional<QByteArray> head = readHead(path, maxBytes);
    if (!head) {
        result.failed = true;
        return result;
    }
    const QByteArray &bytes = *head;
    if (!looksBinary(bytes))
        result.text = decodeText(bytes);
    return result;
}

QString decodeHeaderWord(const QString &value)
{
    // RFC 2047 encoded words: =?charset?B|Q?text?=. Built up in one pass, so that a header made of many
    // words costs time in proportion to its length.
    QString out;
    out.reserve(value.size());
    qsizetype from = 0;
    for (;;) {
        const qsizetype start = value.indexOf(u"=?", from);
        const qsizetype q1 = start < 0 ? -1 : value.indexOf(u'?', start + 2);
        const qsizetype q2 = q1 < 0 ? -1 : value.indexOf(u'?', q1 + 1);
        const qsizetype end = q2 < 0 ? -1 : value.indexOf(u"?=", q2 + 1);
        if (end < 0)
            break;
        const QString encoding = value.mid(q1 + 1, q2 - q1 - 1).toUpper();
        QByteArray raw = value.mid(q2 + 1, end - q2 - 1).toLatin1();
        QByteArray decoded;
        if (encoding == u"B") {
            decoded = QByteArray::fromBase64(raw);
        } else {
            raw.replace('_', ' ');
            decoded = QByteArray::fromPercentEncoding(raw, '=');
        }
        out += QStringView(value).mid(from, start - from);
        out += decodeText(decoded);
        from = end + 2;
    }
    out += QStringView(value).mid(from);
    return out;
}

Extraction extractMail(const QString &path, qint64 maxBytes)
{
    Extraction result;
    const std::optional<QByteArray> head = readHead(path, maxBytes);
    if (!head) {
        result.failed = true;
        return result;
    }
    const QByteArray &bytes = *head;
    qsizetype bodyStart = bytes.indexOf("\n\n");
    const qsizetype crlf = bytes.indexOf("\r\n\r\n");
    if (crlf >= 0 && (bodyStart < 0 || crlf < bodyStart))
        bodyStart = crlf;
    const QString headers = decodeText(bodyStart < 0 ? bytes : bytes.left(bodyStart));
    QString current;
    auto finishHeader = [&]() {
        const qsizetype colon = current.indexOf(u':');
        if (colon > 0) {
            const QString name = current.left(colon).trimmed().toLower();
            const QString value = decodeHeaderWord(current.mid(colon + 1).trimmed());
            if (name == u"subject" && !value.isEmpty()) {
                result.attributes.emplace_back(QStringLiteral("kMDItemDisplayName"), value);
                result.attributes.emplace_back(QStringLiteral("kMDItemSubject"), value);
            } else if (name == u"from" && !value.isEmpty()) {
                result.attributes.emplace_back(QStringLiteral("kMDItemAuthors"), value);
            }
        }
        current.clear();
    };
    for (const QString &line : headers.split(u'\n')) {
        const QString trimmedLine = line.endsWith(u'\r') ? line.chopped(1) : line;
        if (!trimmedLine.isEmpty() && (trimmedLine[0] == u' ' || trimmedLine[0] == u'\t')) {
            current += u' ' + trimmedLine.trimmed();
            continue;
        }
        finishHeader();
        current = trimmedLine;
    }
    finishHeader();
    QString subject;
    for (const auto &[name, value] : result.attributes) {
        if (name == u"kMDItemSubject")
            subject = value;
    }
    const QByteArray body = bodyStart < 0 ? QByteArray() : bytes.mid(bodyStart);
    result.text = subject + u'\n' + (looksBinary(body) ? QString() : decodeText(body));
    return result;
}

// --- child-process extractors ---------------------------------------------------------------------

void putString(QDataStream &out, const QString &key, const QString &value)
{
    out << key << value;
}

QByteArray pdfInChild(const QString &path, qint64 maxBytes)
{
    QByteArray out;
    QDataStream stream(&out, QIODevice::WriteOnly);
    poppler::set_debug_error_function([](const std::string &, void *) {}, nullptr);
    std::unique_ptr<poppler::document> doc(poppler::document::load_from_file(path.toStdString()));
    if (!doc || doc->is_locked())
        return {};
    auto info = [&](const char *key) {
        const poppler::byte_array bytes = doc->info_key(key).to_utf8();
        return QString::fromUtf8(bytes.data(), qsizetype(bytes.size())).trimmed();
    };
    const QString title = info("Title"), author = info("Author"), keywords = info("Keywords");
    if (!title.isEmpty())
        putString(stream, QStringLiteral("kMDItemTitle"), title);
    if (!author.isEmpty())
        putString(stream, QStringLiteral("kMDItemAuthors"), author);
    for (const QString &keyword :
         keywords.split(QRegularExpression(QStringLiteral("[,;]")), Qt::SkipEmptyParts))
        putString(stream, QStringLiteral("kMDItemKeywords"), keyword.trimmed());
    const int pages = doc->pages();
    putString(stream, QStringLiteral("kMDItemNumberOfPages"), QString::number(pages));
    QString text;
    for (int i = 0; i < pages && text.size() < maxBytes; ++i) {
        std::unique_ptr<poppler::page> page(doc->create_page(i));
        if (!page)
            continue;
        if (i == 0) {
            const poppler::rectf box = page->page_rect();
            putString(stream, QStringLiteral("kMDItemPageWidth"), QString::number(qRound(box.width())));
            putString(stream, QStringLiteral("kMDItemPageHeight"), QString::number(qRound(box.height())));
        }
        const poppler::byte_array bytes = page->text().to_utf8();
        text += QString::fromUtf8(bytes.data(), qsizetype(bytes.size())) + u'\n';
    }
    putString(stream, QString(), text.left(qsizetype(maxBytes)));
    return out;
}

// A small zip reader: the central directory, stored or deflated members, nothing else.
QByteArray zipMember(const QByteArray &zip, const QByteArray &name, qint64 maxBytes)
{
    auto u16 = [&](qsizetype at) {
        return at + 2 <= zip.size() ? quint16(uchar(zip[at]) | uchar(zip[at + 1]) << 8) : quint16(0);
    };
    auto u32 = [&](qsizetype at) {
        return at + 4 <= zip.size() ? quint32(u16(at) | quint32(u16(at + 2)) << 16) : 0u;
    };
    qsizetype eocd = -1;
    for (qsizetype at = zip.size() - 22; at >= 0 && at >= zip.size() - 65557; --at) {
        if (u32(at) == 0x06054b50) {
            eocd = at;
            break;
        }
    }
    if (eocd < 0)
        return {};
    const quint16 entries = u16(eocd + 10);
    qsizetype at = u32(eocd + 16);
    for (int i = 0; i < entries && at + 46 <= zip.size() && u32(at) == 0x02014b50; ++i) {
        const quint16 method = u16(at + 10);
        const quint32 compressed = u32(at + 20), uncompressed = u32(at + 24);
        const quint16 nameLength = u16(at + 28), extra = u16(at + 30), comment = u16(at + 32);
        const quint32 local = u32(at + 42);
        if (zip.mid(at + 46, nameLength) == name && local + 30 <= quint32(zip.size())) {
            const qsizetype data = qsizetype(local) + 30 + u16(local + 26) + u16(local + 28);
            if (data + qsizetype(compressed) > zip.size())
                return {};
            if (method == 0)
                return zip.mid(data, qMin<qsizetype>(compressed, maxBytes));
            if (method != 8)
                return {};
            QByteArray out(qMin<qint64>(uncompressed, maxBytes), Qt::Uninitialized);
            z_stream stream{};
            if (inflateInit2(&stream, -MAX_WBITS) != Z_OK)
                return {};
            stream.next_in = reinterpret_cast<Bytef *>(const_cast<char *>(zip.constData() + data));
            stream.avail_in = compressed;
            stream.next_out = reinterpret_cast<Bytef *>(out.data());
            stream.avail_out = uInt(out.size());
            inflate(&stream, Z_FINISH);
            out.truncate(qsizetype(stream.total_out));
            inflateEnd(&stream);
            return out;
        }
        at += 46 + nameLength + extra + comment;
    }
    return {};
}

QString xmlText(const QByteArray &xml)
{
    QString text = QString::fromUtf8(xml);
    text.replace(QRegularExpression(QStringLiteral("<[^>]*>")), QStringLiteral(" "));
    text.replace(QStringLiteral("&lt;"), QStringLiteral("<"))
        .replace(QStringLiteral("&gt;"), QStringLiteral(">"))
        .replace(QStringLiteral("&quot;"), QStringLiteral("\""))
        .replace(QStringLiteral("&amp;"), QStringLiteral("&"));
    return text.simplified();
}

QByteArray officeInChild(const QString &path, qint64 maxBytes)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly) || file.size() > 64 * 1024 * 1024)
        return {};
    const QByteArray zip = file.readAll();
    QStringList members = {QStringLiteral("word/document.xml"), QStringLiteral("xl/sharedStrings.xml"),
                           QStringLiteral("content.xml")};
    for (int i = 1; i <= 200; ++i)
        members.append(QStringLiteral("ppt/slides/slide%1.xml").arg(i));
    QString text;
    for (const QString &member : members) {
        const QByteArray xml = zipMember(zip, member.toUtf8(), maxBytes);
        if (!xml.isEmpty())
            text += xmlText(xml) + u'\n';
        if (text.size() >= maxBytes)
            break;
    }
    QByteArray out;
    QDataStream stream(&out, QIODevice::WriteOnly);
    putString(stream, QString(), text.left(qsizetype(maxBytes)));
    return out;
}

std::optional<QByteArray> imageHeader(const QString &path)
{
    static const bool ready = [] {
        if (VIPS_INIT("vandrel") != 0)
            return false;
        vips_block_untrusted_set(TRUE);
        vips_cache_set_max(0);
        return true;
    }();
    VipsImage *image =
        ready ? vips_image_new_from_file(QFile::encodeName(path).constData(), nullptr) : nullptr;
    if (!image) {
        vips_error_clear();
        return std::nullopt;
    }
    QByteArray out;
    QDataStream stream(&out, QIODevice::WriteOnly);
    putString(stream, QStringLiteral("kMDItemPixelWidth"), QString::number(vips_image_get_width(image)));
    putString(stream, QStringLiteral("kMDItemPixelHeight"), QString::number(vips_image_get_height(image)));
    int orientation = 0;
    if (vips_image_get_typeof(image, "orientation") &&
        vips_image_get_int(image, "orientation", &orientation) == 0)
        putString(stream, QStringLiteral("kMDItemOrientation"), QString::number(orientation));
    g_object_unref(image);
    return out;
}

// A document that needs more to be read is hostile or broken; the cap keeps it from taking the machine.
constexpr rlim_t kChildMemoryLimit = rlim_t(1) << 30;
// More output than any extraction yields (text is capped well below): a child past it is killed.
constexpr qsizetype kMaxChildOutputBytes = 64 * 1024 * 1024;

// Runs `work` in a forked child with an address-space limit and returns what it wrote, or nothing when the
// child failed, crashed, wrote too much or outlived `timeoutMs` (it is then killed).
std::optional<QByteArray> runInChild(const std::function<QByteArray()> &work, int timeoutMs)
{
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0)
        return std::nullopt;
    const pid_t pid = fork();
    if (pid < 0) {
        close(fds[0]);
        close(fds[1]);
        return std::nullopt;
    }
    if (pid == 0) {
        close(fds[0]);
        if (Extractors::childAddressSpaceIsLimited()) {
            const struct rlimit memory = {kChildMemoryLimit, kChildMemoryLimit};
            setrlimit(RLIMIT_AS, &memory);
        }
        // Running out of memory under the limit throws. The child ends here: unwound into the agent's own
        // frames, the copy would run on as a second agent, removing temporary files and writing the index.
        QByteArray out;
        try {
            out = work();
        } catch (...) {
            _exit(1);
        }
        qsizetype written = 0;
        while (written < out.size()) {
            const ssize_t n = write(fds[1], out.constData() + written, size_t(out.size() - written));
            if (n <= 0)
                _exit(1);
            written += n;
        }
        _exit(out.isEmpty() ? 1 : 0);
    }
    close(fds[1]);
    QByteArray result;
    timespec start{};
    clock_gettime(CLOCK_MONOTONIC, &start);
    bool timedOut = false; // or wrote too much: either way it is killed
    for (;;) {
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        const long elapsed = (now.tv_sec - start.tv_sec) * 1000 + (now.tv_nsec - start.tv_nsec) / 1000000;
        if (elapsed >= timeoutMs) {
            timedOut = true;
            break;
        }
        pollfd pfd{fds[0], POLLIN, 0};
        if (poll(&pfd, 1, int(timeoutMs - elapsed)) <= 0)
            continue;
        char buffer[65536];
        const ssize_t n = read(fds[0], buffer, sizeof buffer);
        if (n <= 0)
            break;
        if (result.size() + n > kMaxChildOutputBytes) {
            timedOut = true;
            break;
        }
        result.append(buffer, n);
    }
    close(fds[0]);
    if (timedOut)
        kill(pid, SIGKILL);
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    if (timedOut || !WIFEXITED(status) || WEXITSTATUS(status) != 0)
        return std::nullopt;
    return result;
}

Extraction fromChild(const std::optional<QByteArray> &bytes)
{
    Extraction result;
    if (!bytes) {
        result.failed = true;
        return result;
    }
    QDataStream stream(*bytes);
    while (!stream.atEnd()) {
        QString key, value;
        stream >> key >> value;
        if (stream.status() != QDataStream::Ok)
            break;
        if (key.isEmpty())
            result.text = value;
        else
            result.attributes.emplace_back(key, value);
    }
    return result;
}

} // namespace

namespace Extractors {

bool wants(ContentTypes::Code code)
{
    return kindOf(code) != Kind::None;
}

QStringList tags(const QString &path)
{
    char buffer[4096];
    const ssize_t n = getxattr(QFile::encodeName(path).constData(), "user.xdg.tags", buffer, sizeof buffer);
    if (n <= 0)
        return {};
    QStringList result;
    for (const QString &tag : QString::fromUtf8(buffer, n).split(u',', Qt::SkipEmptyParts))
        result.append(tag.trimmed());
    return result;
}

Extraction extract(const QString &path, ContentTypes::Code code, qint64 maxBytes, int timeoutMs)
{
    Extraction result;
    const QFileInfo info(path);
    switch (info.exists() && info.size() == 0 ? Kind::None : kindOf(code)) {
    case Kind::None:
        break;
    case Kind::Text:
        result = extractText(path, maxBytes);
        break;
    case Kind::Mail:
        result = extractMail(path, maxBytes);
        break;
    case Kind::Pdf:
        result = fromChild(runInChild([&] { return pdfInChild(path, maxBytes); }, timeoutMs));
        break;
    case Kind::Image:
        // Only the header is read, with the untrusted loaders blocked: cheap and safe enough in process.
        result = fromChild(imageHeader(path));
        break;
    case Kind::Office:
        result = fromChild(runInChild([&] { return officeInChild(path, maxBytes); }, timeoutMs));
        break;
    }
    if (result.failed)
        qCDebug(lcMetadata).noquote()
            << QStringLiteral("extractor failed on %1; skipped until it changes").arg(path);
    for (const QString &tag : tags(path))
        result.attributes.emplace_back(QStringLiteral("kMDItemOMUserTags"), tag);
    return result;
}

} // namespace Extractors
