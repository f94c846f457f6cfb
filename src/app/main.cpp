#include "app/CommandLine.h"
#include "app/desktop/DesktopCommand.h"
#include "support/Logging.h"

int main(int argc, char **argv)
{
    Logging::install();
    // With no subcommand the desktop face starts; only it needs the widget application object.
    if (argc <= 1)
        return runDesktop(argc, argv);
    return runCommandLine(argc, argv);
}
