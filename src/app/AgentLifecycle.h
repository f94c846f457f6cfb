#pragma once

#include "platform/Autostart.h"

#include <QObject>
#include <QUrl>

#include <chrono>
#include <functional>
#include <vector>

// When the shell's periodic work runs, counted from the start of the sequence. The defaults are the
// agent's; tests pass short ones.
struct LifecycleTimes
{
    using ms = std::chrono::milliseconds;
    ms statusEvery = std::chrono::seconds(10);
    // So that the status is right soon after start.
    std::vector<ms> statusOnce = {std::chrono::seconds(2), std::chrono::seconds(5), std::chrono::seconds(15),
                                  std::chrono::seconds(18)};
    // Dropbox or Google Drive may still be starting when the agent does.
    std::vector<ms> computerInfoOnce = {std::chrono::seconds(10), std::chrono::seconds(20)};
    ms computerInfoEvery = std::chrono::seconds(60000);
    ms dropboxCheck = std::chrono::seconds(4);
    ms dropboxNoticeDelay = std::chrono::seconds(4);
    ms dropboxNoticeShown = std::chrono::seconds(30);
    ms welcomePause = std::chrono::seconds(1);
};

// The part of the agent's start-up and periodic work that needs no screen, shared by the desktop face and
// `vandrel --headless`: status and computer-info timers, launch counting and the welcome page, the
// Dropbox check, the login start-up entry on the first launch, and storage-folder cache resets when a user
// comes back. The face shows what the signals announce. Main thread only.
class AgentLifecycle : public QObject
{
    Q_OBJECT
public:
    using UrlOpener = std::function<void(const QUrl &)>;

    explicit AgentLifecycle(LifecycleTimes times = {}, QObject *parent = nullptr);

    // Where web pages and folders go besides the log: the desktop's browser or file manager, or a test's
    // list. Without one (no screen) the log line is all.
    void setUrlOpener(UrlOpener opener) { m_openUrl = std::move(opener); }
    void openUrl(const QUrl &url) const;

    // Runs the sequence after the engine has started: status and computer-info timers (with one computer
    // info write at once), the first-launch login entry when `loginItems` is given, the "UserCameOnline"
    // observer, the Dropbox check, the launch count; then, after `welcomePause` on a timer that leaves the
    // event loop running, the welcome page and `launchFinished`. Call once.
    void start(const Autostart *loginItems, const QString &programPath);

    // The status refresh: announces the engine's status text and whether a user is active, then puts back
    // a computer info file that has gone.
    void updateStatus();

    static int launchCount();
    static void incrementLaunchCount();
    // The welcome page on each of the first four launches (the count already includes this one).
    void launchBrowserSoUserCanTest() const;
    static QUrl welcomePageUrl();

    // Adds the login entry once, on the first launch; a user who removes it later is never overruled.
    static void enableOpenAtLoginOnInitialLaunch(const Autostart &loginItems, const QString &programPath);

    // True when a running process's executable (or, unreadable, its command line) has "dropbox" in its
    // lower-cased path.
    static bool isDropboxRunning();
    // Once per launch: when Dropbox is not running, the notice comes up `dropboxNoticeDelay` later and
    // goes `dropboxNoticeShown` after that.
    void ensureDropboxIsRunning();

Q_SIGNALS:
    void statusUpdated(const QString &statusText, bool userActive);
    void dropboxNoticeShown();
    void dropboxNoticeHidden();
    void launchFinished();

private:
    void every(std::chrono::milliseconds interval, std::function<void()> work);
    void showDropBoxNotRunningNotice();

    LifecycleTimes m_times;
    UrlOpener m_openUrl;
};
