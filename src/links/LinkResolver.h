#pragma once

#include "links/qlk_Schema.h"

#include <QObject>
#include <QUrl>

#include <atomic>
#include <functional>
#include <vector>

class MetadataIndex;

// Finds the item a link describes: every indexed item with exactly the link's name (newest first, 600 at
// most), scored against the description, the best one revealed. Resolutions run on the global thread pool,
// several at once and each by itself; only the reveal runs on the thread that owns the resolver.
class LinkResolver : public QObject
{
    Q_OBJECT

public:
    // Shows one item to the user (file manager, or the console when headless).
    using Reveal = std::function<void(const QString &path)>;

    static constexpr int kMaxCandidates = 600;

    LinkResolver(const MetadataIndex &index, Reveal reveal, QObject *parent = nullptr);
    // Waits for resolutions still running, handling their reveals meanwhile.
    ~LinkResolver() override;

    // Starts resolving a link-scheme URL and returns at once.
    void findURL(const QUrl &url);
    // Candidates for the description, best first; empty when the name is empty or the index refuses the
    // query. Reads same-sized candidates whole; call it off the main thread.
    std::vector<LinkCandidate> searchForRequest(const LinkDescription &description) const;
    // Reveals the best candidate, or logs that nothing was found.
    void showResultsToUser(const std::vector<LinkCandidate> &candidates);

    int runningResolutions() const { return m_running.load(); }

Q_SIGNALS:
    // After the reveal: the path revealed ("" when nothing was found) and the milliseconds from the start
    // of the resolution to its choice.
    void resolved(const QUrl &url, const QString &path, qint64 elapsedMs);

private:
    const MetadataIndex &m_index;
    Reveal m_reveal;
    std::atomic<int> m_running{0};
};
