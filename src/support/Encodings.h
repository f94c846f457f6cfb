#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

// The three codecs of the relay payloads, exactly as the WebApp and the relay expect them.
// An empty optional stands for "none" (the reference's nil).

// URL-safe base64 ("-" and "_"), "=" padding kept: the length is always a multiple of 4; "" for no bytes.
QString base64Encoding_URL_SAFE(const QByteArray &bytes);

// Inverse of the above. White space and "=" are skipped anywhere; any other character outside the
// URL-safe alphabet, a non-ASCII text or a single dangling symbol gives none. "" gives empty bytes.
std::optional<QByteArray> dataWithBase64EncodedString_URL_SAFE(const QString &text);

// A zlib (RFC 1950) stream at the default level; empty input is returned as empty bytes, not a stream.
// None only when zlib cannot be initialised.
std::optional<QByteArray> zlibDeflate(const QByteArray &bytes);

// Reads standard base64 written by another program: characters outside the alphabet are ignored. The
// decoded bytes read as UTF-8, or none for an empty result or invalid UTF-8.
std::optional<QString> base64DecodedString(const QString &text);
