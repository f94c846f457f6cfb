#pragma once

// `vandrel` with no subcommand: the desktop agent, a tray icon or a window. Runs until the user quits
// from the menu or the session ends it; answers the process exit code.
int runDesktop(int argc, char **argv);
