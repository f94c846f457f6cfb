#include "handlers/HandlersLog.h"

Q_LOGGING_CATEGORY(lcHandlers, "vd.handlers")
