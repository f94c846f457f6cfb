#pragma once

#include <QStringList>
#include <QtGlobal>

#include <mutex>

// Collects every log message while it lives, from any thread, so a test can check the texts the agent
// logs (and that it logs no secrets). Read `lines` once the work that logs is over.
struct LogCapture
{
    static inline std::mutex lock; // guards appending to lines from worker threads
    static inline QStringList lines;
    static void handler(QtMsgType, const QMessageLogContext &, const QString &message)
    {
        const std::lock_guard guard(lock);
        lines << message;
    }
    QtMessageHandler previous = qInstallMessageHandler(handler);
    LogCapture() { lines.clear(); }
    ~LogCapture() { qInstallMessageHandler(previous); }
};
