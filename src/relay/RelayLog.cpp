#include "relay/RelayLog.h"

Q_LOGGING_CATEGORY(lcRelay, "vd.relay")
