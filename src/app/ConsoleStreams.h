#pragma once

#include <QTextStream>

// The process's standard output and error as text streams, shared by the command-line faces so their
// output interleaves in order.
QTextStream &standardOutput();
QTextStream &standardError();
