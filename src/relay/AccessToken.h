#pragma once

#include <QByteArray>
#include <QString>

#include <optional>

// The relay's access token, kept in "<state dir>/access_token" (0600, folder 0700) and made on first
// start. None, with a log line, when the file cannot be made or read, or others may read it: the relay then
// does not start, rather than run with a token that is not secret.
std::optional<QByteArray> loadOrMakeAccessToken(const QString &stateDir);
