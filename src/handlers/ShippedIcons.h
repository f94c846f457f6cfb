#pragma once

#include <QByteArray>
#include <QString>

// Pictures that come with Vandrel, as SVG, for machines without an icon theme (headless servers) and for
// the items that have no file: the computer and the iCloud place.
namespace ShippedIcons {

// "computer", "icloud", "folder", "image", "audio", "video", "text", "pdf", "archive" or "document";
// an unknown name gives the generic document.
QByteArray svg(const QString &name);

// The shipped picture that fits a MIME type best (its family: image/…, audio/…, a folder…).
QString nameForMimeType(const QString &mimeType);

} // namespace ShippedIcons
