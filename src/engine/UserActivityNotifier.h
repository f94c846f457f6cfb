#pragma once

#include <QObject>

// The process-wide notice that somebody started using the WebApp with this computer again.
class UserActivityNotifier : public QObject
{
    Q_OBJECT

public:
    static UserActivityNotifier *instance();

Q_SIGNALS:
    // Emitted on whichever thread found the session: the main thread's tick or a request's worker thread.
    // Connect with Qt::DirectConnection to run on that thread, or let Qt queue it to the receiver's thread.
    void UserCameOnline();

private:
    UserActivityNotifier() = default;
};
