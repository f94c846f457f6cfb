#pragma once

#include <QString>

// Shows an item to the user. With a desktop: selected in a file manager window through
// org.freedesktop.FileManager1.ShowItems, else its parent folder opened with the default file manager.
// Headless (no display, or the agent started --headless): the path printed on standard output.
// Waits at most 3 s for the file manager to take the call.
void revealInFileManager(const QString &path, bool headless);

// Whether the session has a display to show things on.
bool hasDisplay();
