#include "handlers/ShippedIcons.h"

namespace ShippedIcons {

namespace {

// A page with a folded corner in the given colour, and an emblem drawn on it.
QByteArray page(const char *colour, const char *emblem)
{
    return QByteArray(
               R"(<svg xmlns="http://www.w3.org/2000/svg" width="256" height="256" viewBox="0 0 256 256">)"
               R"(<path d="M56 16h104l56 56v168H56z" fill="#fafafa" stroke="#9a9a9a" stroke-width="6"/>)"
               R"(<path d="M160 16v56h56" fill="#e0e0e0" stroke="#9a9a9a" stroke-width="6"/>)"
               R"(<rect x="56" y="176" width="160" height="40" fill=")") +
           colour + R"("/>)" + emblem + "</svg>";
}

} // namespace

QByteArray svg(const QString &name)
{
    if (name == u"computer")
        return R"(<svg xmlns="http://www.w3.org/2000/svg" width="256" height="256" viewBox="0 0 256 256">)"
               R"(<rect x="24" y="36" width="208" height="140" rx="10" fill="#2f3b4c"/>)"
               R"(<rect x="36" y="48" width="184" height="116" fill="#6fa8dc"/>)"
               R"(<path d="M100 176h56l10 36H90z" fill="#b0b6bd"/><rect x="64" y="210" width="128" height="12" rx="6" fill="#8a9099"/></svg>)";
    if (name == u"icloud")
        return R"(<svg xmlns="http://www.w3.org/2000/svg" width="256" height="256" viewBox="0 0 256 256">)"
               R"(<path d="M72 196a44 44 0 0 1-4-88 60 60 0 0 1 114-14 48 48 0 0 1 10 102z" fill="#5aa9f0" stroke="#2f78c4" stroke-width="6"/></svg>)";
    if (name == u"folder")
        return R"(<svg xmlns="http://www.w3.org/2000/svg" width="256" height="256" viewBox="0 0 256 256">)"
               R"(<path d="M16 56h80l20 20h124v140H16z" fill="#4a90d9"/><path d="M16 92h224v124H16z" fill="#6aaaf0"/></svg>)";
    if (name == u"image")
        return page(
            "#3f9c35",
            R"(<path d="M76 160l40-52 28 34 20-22 36 40z" fill="#3f9c35"/><circle cx="176" cy="96" r="14" fill="#e8b923"/>)");
    if (name == u"audio")
        return page(
            "#c2410c",
            R"(<path d="M150 70v70a18 18 0 1 1-10-16V86l-40 10v60a18 18 0 1 1-10-16V82z" fill="#c2410c"/>)");
    if (name == u"video")
        return page("#7c3aed", R"(<path d="M104 84v72l60-36z" fill="#7c3aed"/>)");
    if (name == u"pdf")
        return page(
            "#d93025",
            R"(<rect x="80" y="80" width="112" height="10" fill="#bbb"/><rect x="80" y="104" width="112" height="10" fill="#bbb"/><rect x="80" y="128" width="80" height="10" fill="#bbb"/>)");
    if (name == u"text")
        return page(
            "#5f6368",
            R"(<rect x="80" y="80" width="112" height="8" fill="#bbb"/><rect x="80" y="100" width="112" height="8" fill="#bbb"/><rect x="80" y="120" width="112" height="8" fill="#bbb"/><rect x="80" y="140" width="64" height="8" fill="#bbb"/>)");
    if (name == u"archive")
        return page(
            "#8d6e63",
            R"(<path d="M128 40v16h-12v16h12v16h-12v16h12v16h-12v16h12" stroke="#8d6e63" stroke-width="8" fill="none"/>)");
    return page("#9e9e9e", "");
}

QString nameForMimeType(const QString &mimeType)
{
    if (mimeType == u"inode/directory")
        return QStringLiteral("folder");
    if (mimeType == u"application/pdf")
        return QStringLiteral("pdf");
    for (const char *family : {"image", "audio", "video", "text"}) {
        if (mimeType.startsWith(QLatin1String(family) + u'/'))
            return QString::fromLatin1(family);
    }
    if (mimeType.contains(u"zip") || mimeType.contains(u"tar") || mimeType.contains(u"compressed"))
        return QStringLiteral("archive");
    return QStringLiteral("document");
}

} // namespace ShippedIcons
