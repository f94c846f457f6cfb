#include "app/QuitSignals.h"

#include <QCoreApplication>
#include <QSocketNotifier>

#include <fcntl.h>
#include <unistd.h>

#include <csignal>

namespace {

int s_signalPipe[2] = {-1, -1};

void onSignal(int)
{
    const char byte = 1;
    // Nothing else is async-signal-safe; the event loop reads the pipe.
    [[maybe_unused]] const ssize_t written = ::write(s_signalPipe[1], &byte, 1);
}

} // namespace

bool quitOnSignals()
{
    if (::pipe2(s_signalPipe, O_CLOEXEC | O_NONBLOCK) != 0)
        return false;
    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    if (::sigaction(SIGINT, &action, nullptr) != 0 || ::sigaction(SIGTERM, &action, nullptr) != 0)
        return false;
    auto *notifier =
        new QSocketNotifier(s_signalPipe[0], QSocketNotifier::Read, QCoreApplication::instance());
    QObject::connect(notifier, &QSocketNotifier::activated, QCoreApplication::instance(),
                     &QCoreApplication::quit);
    return true;
}
