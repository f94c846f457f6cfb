#pragma once

#include <QStringList>

// `vandrel --headless`: the agent without a window. Starts the request engine and the status and
// computer-info timers, and runs until SIGINT or SIGTERM, which end it with exit code 0.
int runHeadlessCommand(const QStringList &args);
