#include "app/AgentLifecycle.h"

#include "app/AppLog.h"
#include "engine/UserActivityNotifier.h"
#include "engine/vd_Searcher.h"
#include "platform/SettingsKeys.h"
#include "platform/UserDefaults.h"
#include "utils/vd_FileUtils.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTimer>

#include <limits>

namespace {

// The welcome page opens on this many first launches.
constexpr int kWelcomeLaunches = 4;

bool mentionsDropbox(const QString &path)
{
    return path.toLower().contains(u"dropbox");
}

} // namespace

AgentLifecycle::AgentLifecycle(LifecycleTimes times, QObject *parent)
    : QObject(parent)
    , m_times(std::move(times))
{}

void AgentLifecycle::openUrl(const QUrl &url) const
{
    if (!url.isValid() || url.isEmpty()) {
        qCInfo(lcApp).noquote() << "no address is set for this page";
        return;
    }
    qCInfo(lcApp).noquote() << "opening" << url.toString();
    if (m_openUrl)
        m_openUrl(url);
}

void AgentLifecycle::every(std::chrono::milliseconds interval, std::function<void()> work)
{
    auto *timer = new QTimer(this);
    connect(timer, &QTimer::timeout, this, std::move(work));
    timer->start(interval);
}

void AgentLifecycle::start(const Autostart *loginItems, const QString &programPath)
{
    every(m_times.statusEvery, [this] { updateStatus(); });
    for (const auto delay : m_times.statusOnce)
        QTimer::singleShot(delay, this, &AgentLifecycle::updateStatus);

    vd_FileUtils::updateComputerInfo();
    for (const auto delay : m_times.computerInfoOnce)
        QTimer::singleShot(delay, this, &vd_FileUtils::updateComputerInfo);
    every(m_times.computerInfoEvery, &vd_FileUtils::updateComputerInfo);

    if (loginItems)
        enableOpenAtLoginOnInitialLaunch(*loginItems, programPath);

    // A user coming back may have created or removed a StorageRoot meanwhile. The signal may come from a
    // worker thread; the cache is reset on this one.
    connect(&UserActivityNotifier::instance(), &UserActivityNotifier::UserCameOnline, this,
            &vd_FileUtils::resetVandrelFolderCache, Qt::QueuedConnection);

    QTimer::singleShot(m_times.dropboxCheck, this, &AgentLifecycle::ensureDropboxIsRunning);
    incrementLaunchCount();

    // A timer rather than a pause: the relay loop shares this event loop and must not be held back.
    QTimer::singleShot(m_times.welcomePause, this, [this] {
        launchBrowserSoUserCanTest();
        Q_EMIT launchFinished();
    });
}

void AgentLifecycle::updateStatus()
{
    Q_EMIT statusUpdated(vd_Searcher::statusString(), vd_Searcher::sActive());
    vd_FileUtils::ensureComputerInfo();
}

int AgentLifecycle::launchCount()
{
    return UserDefaults::intValue(SettingsKeys::LaunchCount);
}

void AgentLifecycle::incrementLaunchCount()
{
    // A hand-edited count at the top of the range stays there rather than wrapping round to the first
    // launches.
    const int count = launchCount();
    UserDefaults::setValue(SettingsKeys::LaunchCount,
                           count < std::numeric_limits<int>::max() ? count + 1 : count);
}

QUrl AgentLifecycle::welcomePageUrl()
{
    QUrl url(UserDefaults::stringValue(SettingsKeys::WebSiteURL));
    if (url.host().isEmpty())
        return {};
    url.setScheme(QStringLiteral("https"));
    url.setPath(QStringLiteral("/welcome/"));
    url.setQuery(QString());
    url.setFragment(QString());
    return url;
}

void AgentLifecycle::launchBrowserSoUserCanTest() const
{
    if (launchCount() <= kWelcomeLaunches)
        openUrl(welcomePageUrl());
}

void AgentLifecycle::enableOpenAtLoginOnInitialLaunch(const Autostart &loginItems, const QString &programPath)
{
    if (UserDefaults::boolValue(SettingsKeys::CheckedEnableOpenAtLoginOnInitialLaunch))
        return;
    if (loginItems.open() && !loginItems.hasEntryFor(programPath))
        loginItems.addEntry(programPath, {});
    UserDefaults::setValue(SettingsKeys::CheckedEnableOpenAtLoginOnInitialLaunch, true);
}

bool AgentLifecycle::isDropboxRunning()
{
    const QDir proc(QStringLiteral("/proc"));
    for (const QString &name : proc.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        bool isProcess = false;
        name.toUInt(&isProcess);
        if (!isProcess)
            continue;
        const QString exe = QFileInfo(proc.filePath(name + QStringLiteral("/exe"))).symLinkTarget();
        if (!exe.isEmpty()) {
            if (mentionsDropbox(exe))
                return true;
            continue;
        }
        // Another user's process hides its executable; its command line's program is still readable.
        QFile cmdline(proc.filePath(name + QStringLiteral("/cmdline")));
        if (cmdline.open(QIODevice::ReadOnly) &&
            mentionsDropbox(QString::fromLocal8Bit(cmdline.read(4096).split('\0').value(0))))
            return true;
    }
    return false;
}

void AgentLifecycle::ensureDropboxIsRunning()
{
    if (isDropboxRunning())
        return;
    QTimer::singleShot(m_times.dropboxNoticeDelay, this, &AgentLifecycle::showDropBoxNotRunningNotice);
}

void AgentLifecycle::showDropBoxNotRunningNotice()
{
    qCInfo(lcApp).noquote()
        << "Dropbox is not running: files in the Dropbox folder will not reach the web app";
    Q_EMIT dropboxNoticeShown();
    QTimer::singleShot(m_times.dropboxNoticeShown, this, [this] { Q_EMIT dropboxNoticeHidden(); });
}
