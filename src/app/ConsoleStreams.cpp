#include "app/ConsoleStreams.h"

QTextStream &standardOutput()
{
    static QTextStream stream(stdout);
    return stream;
}

QTextStream &standardError()
{
    static QTextStream stream(stderr);
    return stream;
}
