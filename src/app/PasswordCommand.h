#pragma once

#include <QStringList>

// `vandrel password set|clear|status`: the computer password without a window. `set` reads the new password
// from standard input (without echo on a terminal), never from the command line, where other users could
// see it in the process list.
int runPasswordCommand(const QStringList &args);
