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

// A zlib (RFC 1950) stream at the fastest level; empty input is returned as empty bytes, not a stream.
// None only when zlib cannot be initialised.
std::optional<QByteArray> zlibDeflate(const QByteArray &bytes);

// One piece of a raw deflate stream at the same level. A piece that is not the last ends on a byte boundary
// and leaves the stream open, so pieces deflated apart, laid end to end with the last one closing, make one
// stream: behind zlibHeader() and the Adler-32 of all their bytes (big-endian), a zlib stream.
std::optional<QByteArray> rawDeflatePiece(const QByteArray &bytes, bool last);
QByteArray zlibHeader();

// Reads standard base64 written by another program: characters outside the alphabet are ignored. The
// decoded bytes read as UTF-8, or none for an empty result or invalid UTF-8.
std::optional<QString> base64DecodedString(const QString &text);
