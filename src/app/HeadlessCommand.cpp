#include "app/HeadlessCommand.h"

#include "app/AppLog.h"
#include "app/FileLinkHandler.h"
#include "app/IndexCommand.h"
#include "app/InstanceChannel.h"
#include "app/RequestHandlerRegistry.h"
#include "engine/UserActivityNotifier.h"
#include "engine/vd_Searcher.h"
#include "handlers/SearchIndex.h"
#include "metadata/MetadataIndex.h"
#include "support/FSNConnection.h"
#include "utils/vd_FileUtils.h"

#include <QCoreApplication>
#include <QSocketNotifier>
#include <QTimer>

#include <fcntl.h>
#include <unistd.h>

#include <csignal>

namespace {

using namespace std::chrono_literals;

int s_signalPipe[2] = {-1, -1};

void onSignal(int)
{
    const char byte = 1;
    // Nothing else is async-signal-safe; the event loop reads the pipe.
    [[maybe_unused]] const ssize_t written = ::write(s_signalPipe[1], &byte, 1);
}

bool installQuitSignals()
{
    if (::pipe2(s_signalPipe, O_CLOEXEC | O_NONBLOCK) != 0)
        return false;
    struct sigaction action = {};
    action.sa_handler = onSignal;
    sigemptyset(&action.sa_mask);
    action.sa_flags = SA_RESTART;
    return ::sigaction(SIGINT, &action, nullptr) == 0 && ::sigaction(SIGTERM, &action, nullptr) == 0;
}

// The shell's status refresh: without a window there is nothing to show, but a computer info file that
// another computer's clean-up removed comes back within 10 s.
void updateStatus()
{
    vd_FileUtils::ensureComputerInfo();
}

void at(std::chrono::milliseconds delay, void (*slot)())
{
    QTimer::singleShot(delay, QCoreApplication::instance(), slot);
}

void every(std::chrono::milliseconds interval, void (*slot)())
{
    auto *timer = new QTimer(QCoreApplication::instance());
    QObject::connect(timer, &QTimer::timeout, slot);
    timer->start(interval);
}

} // namespace

int runHeadlessCommand(const QStringList &args)
{
    if (!args.isEmpty()) {
        qCWarning(lcApp).noquote() << "vandrel --headless takes no arguments";
        return 64;
    }
    if (!installQuitSignals()) {
        qCWarning(lcApp).noquote() << "cannot watch for SIGINT and SIGTERM";
        return 1;
    }
    QSocketNotifier quitNotifier(s_signalPipe[0], QSocketNotifier::Read);
    QObject::connect(&quitNotifier, &QSocketNotifier::activated, QCoreApplication::instance(),
                     &QCoreApplication::quit);

    vd_FileUtils::resetVandrelFolderCache();
    // Searches answer from whatever the index holds; it loads, catches up and watches on its own thread.
    MetadataIndex index(indexConfigFromSettings());
    index.start();
    SearchIndex::setCurrent(&index);
    // Later `vandrel open` and `vandrel link` commands hand their URLs and files to this instance.
    FileLinkHandler links(index, true);
    InstanceChannel instance;
    instance.setHandler([&links](const QString &command, const QStringList &arguments) {
        return links.answer(command, arguments);
    });
    if (!instance.listen())
        qCWarning(lcApp).noquote() << "another vandrel answers on" << InstanceChannel::socketPath()
                                   << "; links opened later go to it";
    registerRequestHandlers();
    vd_Searcher::initializeThings();

    every(10s, updateStatus);
    for (const auto delay : {2s, 5s, 15s, 18s})
        at(delay, updateStatus);
    // Dropbox or Google Drive may still be starting, hence the two early repeats.
    vd_FileUtils::updateComputerInfo();
    for (const auto delay : {10s, 20s})
        at(delay, vd_FileUtils::updateComputerInfo);
    every(60000s, vd_FileUtils::updateComputerInfo);

    // A user coming back may have created or removed a StorageRoot meanwhile.
    QObject::connect(&UserActivityNotifier::instance(), &UserActivityNotifier::UserCameOnline,
                     &vd_FileUtils::resetVandrelFolderCache);

    qCInfo(lcApp).noquote() << "vandrel running headless";
    const int code = QCoreApplication::exec();
    qCInfo(lcApp).noquote() << "vandrel stopping";
    FSNConnection::cancelAllConnections();
    vd_Searcher::opQ().clear();
    vd_Searcher::opQ().waitForDone();
    SearchIndex::setCurrent(nullptr);
    index.stop();
    return code;
}
