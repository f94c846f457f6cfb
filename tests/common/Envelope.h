#pragma once

#include <QByteArray>
#include <QJsonDocument>
#include <QString>

// A relay envelope read back the long way, independently of the agent's own code: URL-safe base64, then
// zlib's inflate, then JSON. A null document when any step fails.
QJsonDocument unpackEnvelope(const QString &text);
