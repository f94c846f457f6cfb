#pragma once

#include <QByteArray>
#include <QJsonDocument>
#include <QString>

#include <optional>

// Unpacks what agents send in "result" and "os_sessions": URL-safe base64 ("=" kept), a zlib stream, compact
// JSON. None when any step fails or the JSON would exceed maxBytes, so a small bomb cannot fill memory.
std::optional<QJsonDocument> unpackRelayEnvelope(const QByteArray &text, qsizetype maxBytes);
