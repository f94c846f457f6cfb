#include "relay/LinkPage.h"

#include "links/qlk_Schema.h"

#include <QLocale>
#include <QStringList>
#include <QUrl>

#include <algorithm>

namespace {

// Only the part after the prefix matters; the host stands in for wherever the link was shared from.
const QString kAnyBase = QStringLiteral("http://link.invalid/l");

// Names come from whoever wrote the address: control characters and direction overrides, which could
// make "txt.exe" read as "exe.txt", are shown as replacement characters.
QString displayed(const QString &text)
{
    QString shown = text;
    for (QChar &c : shown) {
        const char16_t u = c.unicode();
        if (u < 0x20 || u == 0x7f || (u >= 0x202a && u <= 0x202e) || (u >= 0x2066 && u <= 0x2069))
            c = QChar(QChar::ReplacementCharacter);
    }
    return shown.toHtmlEscaped();
}

QByteArray page(const QString &title, const QString &body)
{
    return QStringLiteral(
               "<!doctype html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
               "<meta name=\"viewport\" content=\"width=device-width, initial-scale=1\">\n"
               "<meta name=\"color-scheme\" content=\"light dark\">\n"
               "<meta name=\"referrer\" content=\"no-referrer\">\n<title>%1</title>\n"
               "<link rel=\"stylesheet\" href=\"/style.css\">\n"
               "<script type=\"module\" src=\"/js/linkpage.js\"></script>\n</head>\n<body>\n"
               "<main>\n<section class=\"panel link-page\">\n%2</section>\n</main>\n</body>\n</html>\n")
        .arg(title, body)
        .toUtf8();
}

QString sizeText(const LinkDescription &description)
{
    const QLocale english(QLocale::English);
    if (description.dir) {
        return description.numFiles == 1
                   ? QStringLiteral("A folder with 1 item")
                   : QStringLiteral("A folder with %1 items").arg(english.toString(description.numFiles));
    }
    const QString bytes = description.size == 1
                              ? QStringLiteral("1 byte")
                              : QStringLiteral("%1 bytes").arg(english.toString(description.size));
    if (description.size < 1000)
        return QStringLiteral("A file of %1").arg(bytes);
    return QStringLiteral("A file of %1 (%2)")
        .arg(english.formattedDataSize(description.size, 1, QLocale::DataSizeSIFormat), bytes);
}

// The folders the item was in, outermost first. A link carries up to three; one of an item near the root
// carries fewer, and its header segments then stand in the ancestor fields, so only as many as the link
// holds are real. The root travels as a slash, which splits into two empty names.
QStringList ancestorsOf(const QUrl &schemeUrl, const LinkDescription &description)
{
    const qsizetype segments = schemeUrl.path(QUrl::FullyEncoded).count(u'/');
    const qsizetype real = std::clamp<qsizetype>(segments - 3, 0, 3);
    const QStringList all{description.greatGrandParent, description.grandParent, description.parent};
    QStringList ancestors;
    for (const QString &name : all.mid(3 - real)) {
        const QString shown = name.isEmpty() ? QStringLiteral("/") : name;
        if (ancestors.isEmpty() || shown != u"/" || ancestors.last() != u"/")
            ancestors << shown;
    }
    return ancestors;
}

} // namespace

LinkPage::Reply LinkPage::render(std::string_view encodedLink)
{
    const QString rest = QString::fromUtf8(encodedLink.data(), qsizetype(encodedLink.size()));
    const std::optional<QUrl> schemeUrl =
        qlk_Schema::schemeUrlForServiceLink(QUrl(kAnyBase + u'/' + rest, QUrl::StrictMode), kAnyBase);
    const std::optional<LinkDescription> description =
        schemeUrl ? qlk_Schema::parseQlkUrl(*schemeUrl) : std::nullopt;
    if (!description || description->fileName.isEmpty()) {
        return {400, page(QStringLiteral("Not a file link"),
                          QStringLiteral("<h1>Not a file link</h1>\n<p>This address does not hold a complete "
                                         "Vandrel file link. Links are long: check that it was copied "
                                         "whole, up to the item's name at its end.</p>\n"))};
    }

    const QString name = displayed(description->fileName);
    QStringList folders;
    for (const QString &folder : ancestorsOf(*schemeUrl, *description))
        folders << QStringLiteral("<li>%1</li>").arg(displayed(folder));
    const QString link = schemeUrl->toString(QUrl::FullyEncoded).toHtmlEscaped();
    QString body =
        QStringLiteral("<p class=\"kind\">%1</p>\n<h1 id=\"name\">%2</h1>\n<p id=\"size\">%3</p>\n")
            .arg(description->dir ? QStringLiteral("Shared folder") : QStringLiteral("Shared file"), name,
                 sizeText(*description));
    if (!folders.isEmpty())
        body += QStringLiteral("<p>It was in</p>\n<ol id=\"folders\" class=\"folders\">%1</ol>\n")
                    .arg(folders.join(QString()));
    body += QStringLiteral(
                "<p>Vandrel on the computer it came from finds it again, even after it moved, and shows it "
                "in the file manager.</p>\n"
                "<p><a class=\"button primary\" id=\"open\" href=\"%1\">Open on this computer</a></p>\n"
                "<label for=\"scheme-url\">Or copy this and give it to <code>vandrel open</code>:</label>\n"
                "<div class=\"copy-row\"><input id=\"scheme-url\" readonly value=\"%1\">"
                "<button type=\"button\" id=\"copy\">Copy</button></div>\n"
                "<p id=\"copy-status\" class=\"muted\" role=\"status\"></p>\n")
                .arg(link);
    return {200, page(name + QStringLiteral(" – Vandrel link"), body)};
}
