#pragma once

#include "platform/Autostart.h"

#include <QString>

// Keeps the agent in the user's login start-up list (the XDG autostart folder). Every entry whose program
// path begins with the agent's own program path is the agent's, so a copy started through a symbolic link
// or an older entry that passes other arguments counts too.
class DPOpenAtLogin
{
public:
    // The running program's path: what a new entry starts and what the prefix test compares with.
    static QString programPath();

    // True when an active entry of ours exists; false also when the list cannot be opened.
    static bool openAtLoginEnabled(const Autostart &list = Autostart(), const QString &path = programPath());

    // Removes every entry of ours when one is active, else adds one; nothing when the list cannot be opened.
    static void toggleLoginItem(const Autostart &list = Autostart(), const QString &path = programPath());
};
