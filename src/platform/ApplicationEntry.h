#pragma once

#include <QString>

// The desktop entries that list Vandrel in the application menu ("vandrel.desktop") and make `vandrel open`
// the handler of its link scheme ("vandrel-link-handler.desktop", x-scheme-handler/qlk), named like the
// ones the package installs.
namespace ApplicationEntry {

// The entry's path when an applications folder of the XDG data folders (the user's or the system's) holds
// one, else an empty string.
QString installedPath();

// For a program run from where it was built or unpacked: writes both entries to the user's applications
// folder ($XDG_DATA_HOME/applications), starting `programPath`, unless the menu entry exists already. Answers
// the path of the entry in use, or an empty string (with a log line) when none could be written.
QString installForUser(const QString &programPath);

} // namespace ApplicationEntry
