#include "links/LinksLog.h"

Q_LOGGING_CATEGORY(lcLinks, "vd.links")
