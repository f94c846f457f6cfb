#pragma once

#include <functional>

class QNetworkAccessManager;
class QThread;

// The "FSNConnection queue": one thread, started on first use, that owns the process's
// QNetworkAccessManager. Every transfer, reply callback and reply parse of FSNConnection runs on it.
// It needs a QCoreApplication; it stops when the application object is destroyed, and is not restarted.
class FSNConnectionQueue
{
public:
    // Queues work to run on the queue thread with the shared manager. Callable from any thread; returns
    // at once. False, with the work dropped, when there is no application object or the queue has stopped.
    static bool post(std::function<void(QNetworkAccessManager &)> work);

    // The queue thread, starting it if needed; null when post would fail.
    static QThread *thread();
};
