#pragma once

#include <QString>

// Whether the agent may talk to the RelayServer at this base address: https anywhere, plain http only to
// this machine (127.0.0.0/8, ::1, "localhost"), since the polls carry the computer id and results.
bool isAllowedRelayAddress(const QString &baseUrl);
