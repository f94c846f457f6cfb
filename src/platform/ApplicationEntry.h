#pragma once

#include <QString>

// The desktop entry that lists Vandrel in the application menu and makes it the handler of its link scheme
// (x-scheme-handler/qlklink), named "vandrel.desktop" like the one the package installs.
namespace ApplicationEntry {

// The entry's path when an applications folder of the XDG data folders (the user's or the system's) holds
// one, else an empty string.
QString installedPath();

// For a program run from where it was built or unpacked: writes the entry to the user's applications
// folder ($XDG_DATA_HOME/applications), starting `programPath` with the URLs it is handed, unless an entry
// exists already. Answers the path of the entry in use, or an empty string (with a log line) when none
// could be written.
QString installForUser(const QString &programPath);

} // namespace ApplicationEntry
