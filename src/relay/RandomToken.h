#pragma once

#include <QString>

// URL-safe base64 of that many bytes from the system's secure generator: tickets, session ids, cookies and
// the access token. Aborts the process when the generator fails, since a guessable token opens everything.
QString randomToken(int bytes);
