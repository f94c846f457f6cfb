#include "support/Logging.h"

#include <QApplication>

#include <gtest/gtest.h>

// The desktop face needs a widget application; without a display the offscreen platform stands in.
int main(int argc, char **argv)
{
    Logging::install();
    if (!qEnvironmentVariableIsSet("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    // Revealing a folder asks the session's file manager over D-Bus; the tests check the fallback. A bus
    // address that leads nowhere also keeps D-Bus from launching a bus of its own on the X server.
    qputenv("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/vandrel-test-bus");
    QApplication app(argc, argv);
    QApplication::setQuitOnLastWindowClosed(false);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
