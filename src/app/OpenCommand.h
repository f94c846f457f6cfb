#pragma once

#include <QStringList>

// `vandrel open URL...`: resolves links (link-scheme URLs, or links as shared under the LinkService) and
// reveals what they describe. Hands them to the running instance when there is one; otherwise becomes the
// instance until its resolutions are done. Returns the exit code.
int runOpenCommand(const QStringList &args);
