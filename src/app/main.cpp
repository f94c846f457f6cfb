#include "app/CommandLine.h"
#include "support/Logging.h"

int main(int argc, char **argv)
{
    Logging::install();
    return runCommandLine(argc, argv);
}
