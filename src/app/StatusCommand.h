#pragma once

#include <QStringList>

// `vandrel status`: what this computer tells the web app, for a person to read.
int runStatusCommand(const QStringList &args);
