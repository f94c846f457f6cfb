#include "support/Logging.h"

#include <QCoreApplication>

#include <gtest/gtest.h>

// Every test executable runs with a core application, so timers, queued calls and QStandardPaths behave
// as they do in the agent.
int main(int argc, char **argv)
{
    Logging::install();
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
