#include "metadata/MetadataLog.h"

Q_LOGGING_CATEGORY(lcMetadata, "vd.metadata")
