#pragma once

#include <QLoggingCategory>

Q_DECLARE_LOGGING_CATEGORY(lcSupport)

namespace Logging {
// One plain line per event on standard error: "vd.engine: <message>". Journald adds its own time stamp,
// so none is printed here. Call once, first thing in main.
void install();
} // namespace Logging
