#pragma once

#include <QStringList>

// Parses vandrel's command line and runs the face or subcommand it names. Returns the process exit code.
// The application object is created here, so main stays a one-liner.
int runCommandLine(int argc, char **argv);

// The text of `vandrel --help`.
QString helpText();
