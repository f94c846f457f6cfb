#pragma once

#include "metadata/MetadataConfig.h"
#include "metadata/MetadataIndex.h"

#include <QStringList>

// `vandrel index status|rebuild|query TEXT [--scope DIR] [--limit N]`: the metadata index from the
// command line, so a person can check it without the web app. Returns the process exit code.
int runIndexCommand(const QStringList &args);

// The index configuration from the settings "IndexedRoots" and "IndexExcludes" (defaults: the home folder
// and the volumes the user mounted, no extra excludes).
MetadataConfig indexConfigFromSettings();

// One line on the indexing: "done (...)" or what is read, what waits and an estimate.
QString indexProgressText(const MetadataIndexStatus &status);
