#include "support/Logging.h"

Q_LOGGING_CATEGORY(lcSupport, "vd.support")

namespace Logging {

void install()
{
    qSetMessagePattern(QStringLiteral("%{if-category}%{category}: %{endif}%{message}"));
}

} // namespace Logging
