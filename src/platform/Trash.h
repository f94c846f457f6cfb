#pragma once

#include <QString>

// The desktop's trash (the freedesktop layout that file managers show): items moved there can be restored
// by the user; nothing is deleted.
namespace Trash {

// Moves the item (file or folder) to the trash of its file system: the home trash, or the volume's own
// trash on another file system. Creates the data home first, since without it the item would land beside
// the working directory. Answers the item's path inside the trash, or an empty string when it could not be
// moved together with the restore record a file manager needs (the item is then where it was; one log line
// says why, and where it is in the rare case that putting it back failed too).
QString moveToTrash(const QString &path);

} // namespace Trash
