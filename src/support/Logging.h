#pragma once

#include <QLoggingCategory>

Q_DECLARE_LOGGING_CATEGORY(lcSupport)

namespace Logging {
// One plain line per event on standard error: "vd.engine: <message>". Journald adds its own time stamp,
// so none is printed here. Call once, first thing in main.
void install();

// While one lives on a thread with active set, the log lines written there hide the paths and words of the
// request being served, since its sender encrypted them.
class PrivateRequestScope
{
public:
    explicit PrivateRequestScope(bool active);
    ~PrivateRequestScope();
    PrivateRequestScope(const PrivateRequestScope &) = delete;
    PrivateRequestScope &operator=(const PrivateRequestScope &) = delete;

private:
    bool m_previous;
};

// The text as a log line may show it: itself, or "(private)" inside an active PrivateRequestScope.
QString shownInLog(const QString &text);
} // namespace Logging
