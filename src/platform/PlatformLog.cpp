#include "platform/PlatformLog.h"

Q_LOGGING_CATEGORY(lcPlatform, "vd.platform")
