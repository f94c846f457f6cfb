#include "app/AgentEngine.h"

#include "app/AppLog.h"
#include "app/FileLinkHandler.h"
#include "app/IndexCommand.h"
#include "app/InstanceChannel.h"
#include "app/RequestHandlerRegistry.h"
#include "engine/vd_Searcher.h"
#include "handlers/SearchIndex.h"
#include "handlers/vd_FileCompareCache.h"
#include "metadata/MetadataIndex.h"
#include "support/FSNConnection.h"

AgentEngine::AgentEngine(bool headless)
    : m_headless(headless)
{}

AgentEngine::~AgentEngine()
{
    stop();
}

void AgentEngine::start()
{
    if (m_index)
        return;
    // Searches answer from whatever the index holds; it loads, catches up and watches on its own thread.
    m_index = std::make_unique<MetadataIndex>(indexConfigFromSettings());
    m_index->start();
    SearchIndex::setCurrent(m_index.get());
    registerRequestHandlers();
    // The first page polished after start finds the uploads already being indexed.
    vd_FileCompareCache::refreshMatchedFilesCache(false);
    vd_Searcher::initializeThings();

    m_links = std::make_unique<FileLinkHandler>(*m_index, m_headless);
    m_instance = std::make_unique<InstanceChannel>();
    m_instance->setHandler([links = m_links.get()](const QString &command, const QStringList &arguments) {
        return links->answer(command, arguments);
    });
    if (!m_instance->listen())
        qCWarning(lcApp).noquote() << "another vandrel answers on" << InstanceChannel::socketPath()
                                   << "; links opened later go to it";
}

void AgentEngine::stop()
{
    if (!m_index)
        return;
    m_instance.reset();
    m_links.reset();
    FSNConnection::cancelAllConnections();
    vd_Searcher::opQ().clear();
    vd_Searcher::opQ().waitForDone();
    SearchIndex::setCurrent(nullptr);
    m_index->stop();
    m_index.reset();
}
