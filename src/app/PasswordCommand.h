#pragma once

#include <QStringList>

// `vandrel password set|clear|status`: the computer password without a window. `set` reads the new
// password as one line of standard input (typed without echo on a terminal), never from an argument.
// Setting or clearing rewrites every StorageRoot's computer info file at once, as the preferences do; a
// running agent reads the keychain afresh for each request and needs no restart.
namespace PasswordCommand {

// Runs the subcommand with the arguments after "password"; returns the process exit code.
int run(const QStringList &args);

} // namespace PasswordCommand
