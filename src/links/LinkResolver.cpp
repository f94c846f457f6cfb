#include "links/LinkResolver.h"

#include "links/LinksLog.h"
#include "metadata/MetadataIndex.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QThreadPool>

#include <algorithm>

LinkResolver::LinkResolver(const MetadataIndex &index, Reveal reveal, QObject *parent)
    : QObject(parent)
    , m_index(index)
    , m_reveal(std::move(reveal))
{}

LinkResolver::~LinkResolver()
{
    // A running resolution waits for its reveal on this thread, so waiting must keep handling events.
    while (m_running.load() > 0)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
}

void LinkResolver::findURL(const QUrl &url)
{
    ++m_running;
    QThreadPool::globalInstance()->start([this, url] {
        QElapsedTimer timer;
        timer.start();
        const std::optional<LinkDescription> description = qlk_Schema::parseQlkUrl(url);
        const std::vector<LinkCandidate> candidates =
            description ? searchForRequest(*description) : std::vector<LinkCandidate>();
        const qint64 elapsedMs = timer.elapsed();
        QMetaObject::invokeMethod(
            this,
            [this, &candidates, &url, elapsedMs] {
                showResultsToUser(candidates);
                // Counted done before the signal, so a listener that waits for the last one sees zero.
                --m_running;
                Q_EMIT resolved(url, candidates.empty() ? QString() : candidates.front().path, elapsedMs);
            },
            Qt::BlockingQueuedConnection);
    });
}

std::vector<LinkCandidate> LinkResolver::searchForRequest(const LinkDescription &description) const
{
    const QString query = qlk_Schema::currentQueryString(description.fileName);
    if (query.isEmpty())
        return {};
    const MetadataQueryResult result =
        m_index.query(query, {}, QStringLiteral("kMDItemContentModificationDate"), true, kMaxCandidates);
    if (!result.ok) {
        qCInfo(lcLinks).noquote() << "link search refused by the index:" << result.error;
        return {};
    }
    std::vector<LinkCandidate> candidates;
    candidates.reserve(size_t(result.paths.size()));
    for (const QString &path : result.paths) {
        if (!path.isEmpty())
            candidates.push_back(qlk_Schema::fileInfoDict(path, description));
    }
    std::stable_sort(candidates.begin(), candidates.end(),
                     [](const LinkCandidate &a, const LinkCandidate &b) { return a.score > b.score; });
    return candidates;
}

void LinkResolver::showResultsToUser(const std::vector<LinkCandidate> &candidates)
{
    if (candidates.empty()) {
        qCInfo(lcLinks).noquote() << "tell user nothing found";
        return;
    }
    m_reveal(candidates.front().path);
}
