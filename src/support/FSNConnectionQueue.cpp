#include "support/FSNConnectionQueue.h"

#include <QCoreApplication>
#include <QNetworkAccessManager>
#include <QThread>

#include <mutex>

namespace {

struct QueueState
{
    std::mutex lock;
    QThread *thread = nullptr;                // guarded by lock
    QNetworkAccessManager *manager = nullptr; // guarded by lock; lives on thread
    bool stopped = false;                     // guarded by lock
};

QueueState &state()
{
    static QueueState instance;
    return instance;
}

// Runs while the application object is destroyed: replies still in flight are dropped with the manager.
void stopQueue()
{
    QThread *thread = nullptr;
    {
        std::lock_guard guard(state().lock);
        state().stopped = true;
        thread = std::exchange(state().thread, nullptr);
        state().manager = nullptr;
    }
    if (!thread)
        return;
    thread->quit();
    thread->wait();
    delete thread;
}

// Under state().lock.
QNetworkAccessManager *managerLocked()
{
    QueueState &queue = state();
    if (queue.stopped || !QCoreApplication::instance())
        return nullptr;
    if (!queue.manager) {
        queue.thread = new QThread;
        queue.thread->setObjectName(QStringLiteral("FSNConnection queue"));
        queue.manager = new QNetworkAccessManager;
        queue.manager->moveToThread(queue.thread);
        QObject::connect(queue.thread, &QThread::finished, queue.manager, &QObject::deleteLater);
        queue.thread->start();
        qAddPostRoutine(stopQueue);
    }
    return queue.manager;
}

} // namespace

bool FSNConnectionQueue::post(std::function<void(QNetworkAccessManager &)> work)
{
    std::lock_guard guard(state().lock);
    QNetworkAccessManager *manager = managerLocked();
    if (!manager)
        return false;
    return QMetaObject::invokeMethod(
        manager, [manager, work = std::move(work)] { work(*manager); }, Qt::QueuedConnection);
}

QThread *FSNConnectionQueue::thread()
{
    std::lock_guard guard(state().lock);
    return managerLocked() ? state().thread : nullptr;
}
