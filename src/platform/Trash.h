#pragma once

#include <QString>

#include <optional>

// The user's freedesktop trash. Items moved there can be restored from any file manager; nothing is
// deleted. An item on another file system than the home folder goes to that file system's own trash
// (".Trash-<uid>" at its top), so moving it never copies.
class Trash
{
public:
    // Moves the file or folder at `path` (a symbolic link moves as the link) to the trash and returns its
    // new path there, with its restore record written. On failure logs one line, returns none, and the item
    // is where it was. Costs one rename and one small file.
    static std::optional<QString> moveToTrash(const QString &path);
};
