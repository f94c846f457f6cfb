#pragma once

#include "metadata/MetadataConfig.h"

#include <QStringList>

// `vandrel index status|rebuild|query TEXT [--scope DIR] [--limit N]`: the metadata index from the
// command line, so a person can check it without the web app. Returns the process exit code.
int runIndexCommand(const QStringList &args);

// The index configuration from the settings "IndexedRoots" and "IndexExcludes" (defaults: the home folder
// and the local volumes, no extra excludes).
MetadataConfig indexConfigFromSettings();
