#include "engine/EngineLog.h"

Q_LOGGING_CATEGORY(lcEngine, "vd.engine")
