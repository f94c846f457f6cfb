#pragma once

#include <QStringList>

// `vandrel link PATH...`: the links of the files, in path order, printed one a line and put on the
// clipboard where there is one. A running instance makes them when there is one. Returns the exit code.
int runLinkCommand(const QStringList &args);
