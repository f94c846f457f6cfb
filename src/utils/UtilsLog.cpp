#include "utils/UtilsLog.h"

Q_LOGGING_CATEGORY(lcUtils, "vd.utils")
