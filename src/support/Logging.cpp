#include "support/Logging.h"

Q_LOGGING_CATEGORY(lcSupport, "vd.support")

namespace Logging {

void install()
{
    qSetMessagePattern(QStringLiteral("%{if-category}%{category}: %{endif}%{message}"));
}

namespace {
thread_local bool t_private = false;
} // namespace

PrivateRequestScope::PrivateRequestScope(bool active)
    : m_previous(t_private)
{
    t_private = active;
}

PrivateRequestScope::~PrivateRequestScope()
{
    t_private = m_previous;
}

QString shownInLog(const QString &text)
{
    return t_private ? QStringLiteral("(private)") : text;
}

} // namespace Logging
