#pragma once

#include <QStringList>

// `vandrel status`: what this computer shows the WebApp, for a person to read: the computer id and name,
// whether a password is set (never the password), and every StorageRoot in the agent's order with its
// session count and whether this computer's info file is there. Looks afresh, as opening the status menu
// does; changes nothing in the StorageRoots.
namespace StatusCommand {

// Runs the subcommand with the arguments after "status"; returns the process exit code.
int run(const QStringList &args);

} // namespace StatusCommand
