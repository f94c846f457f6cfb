#pragma once

#include <QObject>

// Announces that a WebApp user came back after a pause. The signal is emitted on whichever thread noticed
// it (a timer tick on the main thread, or a request operation's worker thread): receivers that need the
// main thread connect with a queued connection.
class UserActivityNotifier : public QObject
{
    Q_OBJECT
public:
    static UserActivityNotifier &instance();

Q_SIGNALS:
    void UserCameOnline();
};
