#pragma once

#include <QDateTime>
#include <QString>
#include <QStringList>
#include <QUrl>

#include <optional>

// What a link says about its item. Files carry size and CRC-32, folders their number of direct entries;
// both carry their name and the names of their three nearest ancestors, read by position from the end of
// the link, so a short link leaves header segments (size, checksum, marker) in the ancestor fields.
struct LinkDescription
{
    bool dir = false;
    qint64 numFiles = 0; // folders
    qint64 size = 0;     // files
    QString crc32;       // files; "" when the file could not be read
    QString fileName;
    QString parent;
    QString grandParent;
    QString greatGrandParent;
};

// An item the index found for a link, with what the file system says about it and its score.
struct LinkCandidate
{
    QString path;
    QUrl url;
    std::optional<QDateTime> modDate;
    std::optional<bool> dir;
    std::optional<qint64> size; // files only
    QString display;
    int score = 0;
};

// File links: a web address under the LinkService describing one file or folder by name, ancestors, kind
// and size or entry count, so that the item can be found again by name after it moved. Building and
// reading links touches only the file itself; finding the item again is LinkResolver's part.
class qlk_Schema
{
public:
    // Score weights. The name outweighs every other test together.
    static constexpr int kNameScore = 10000;
    static constexpr int kEntryCountScore = 1000;
    static constexpr int kChecksumScore = 2500;
    static constexpr int kSameSizeOtherChecksumScore = 500;
    static constexpr int kAncestorScore = 100;

    // The scheme the desktop hands to `vandrel open`; any scheme that begins with these three letters
    // (case-sensitive) is taken.
    static QString scheme() { return QStringLiteral("qlk"); }
    static bool isLinkSchemeUrl(const QString &text) { return text.startsWith(scheme(), Qt::CaseSensitive); }

    // The link of the item at `path` under the LinkService base URL (setting "LinkServiceURL"), or nothing
    // when no item exists there (a symbolic link judged by its target) or the text is not a valid URL. Reads
    // a file's whole content for its checksum on the calling thread.
    static std::optional<QUrl> qlkURLFor(const QString &path);
    static std::optional<QUrl> qlkURLFor(const QString &path, const QString &linkServiceUrl);

    // The description in a link-scheme URL (type in the host position, the other segments as the path), or
    // nothing when it has four path components or fewer (the root counted as one). Numbers that do not read
    // as numbers are 0.
    static std::optional<LinkDescription> parseQlkUrl(const QUrl &url);

    // Turns a link as shared (LinkService base URL, type, segments) into the link-scheme URL that
    // parseQlkUrl reads, keeping every segment's encoding. Nothing when the link is not under the base URL
    // or carries no type.
    static std::optional<QUrl> schemeUrlForServiceLink(const QUrl &link, const QString &linkServiceUrl);

    // Appends `text` percent-encoded with the URL-path character set (upper-case hex of UTF-8 bytes).
    static void addComponent(const QString &text, QStringList &segments);
    // Direct entries of a folder, hidden ones included; 0 when it cannot be listed.
    static qint64 countFilesUnderFolder(const QString &path);
    // The item's own size (a final symbolic link not followed); 0 when unreadable.
    static qint64 fileSizeInBytes(const QString &path);
    // The components of an absolute path, the root "/" first.
    static QStringList pathComponents(const QString &absolutePath);

    // The index query for items named exactly `fileName`, put in as it stands: a quote in the name makes a
    // malformed query, which the index refuses. Empty for an empty name.
    static QString currentQueryString(const QString &fileName);

    // The candidate record of `path`, scored against `description`. Reads the file system; a same-sized
    // file is read whole for its checksum.
    static LinkCandidate fileInfoDict(const QString &path, const LinkDescription &description);
    // Sets candidate.score: name 10000; a candidate of the wrong kind gets nothing more; a folder with the
    // link's entry count 1000; a file of the link's size 2500 when its checksum matches, else 500 (only
    // then is it read); 100 for each ancestor name that matches at its position.
    static void addScore(LinkCandidate &candidate, const LinkDescription &description);
};
