#pragma once

#include <QString>

#include <vips/vips8>

// Pictures that come with Vandrel, drawn in code, for machines without an icon theme (headless servers) and
// for the items that have no file: the computer and the iCloud place. Drawn rather than loaded so that no
// vector-image decoder runs in the agent's process.
namespace ShippedIcons {

// A 256 × 256 RGBA picture: "computer", "icloud", "folder", or a document in the colour of a family
// ("image", "audio", "video", "text", "pdf", "archive"); any other name gives the plain document.
vips::VImage picture(const QString &name);

// The shipped picture that fits a MIME type best (its family: image/…, audio/…, a folder…).
QString nameForMimeType(const QString &mimeType);

} // namespace ShippedIcons
