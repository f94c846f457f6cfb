#include "app/AgentEngine.h"

#include "app/IndexCommand.h"
#include "app/RequestHandlerRegistry.h"
#include "engine/vd_Searcher.h"
#include "handlers/SearchIndex.h"
#include "metadata/MetadataIndex.h"
#include "support/FSNConnection.h"

AgentEngine::AgentEngine() = default;

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
    vd_Searcher::initializeThings();
}

void AgentEngine::stop()
{
    if (!m_index)
        return;
    FSNConnection::cancelAllConnections();
    vd_Searcher::opQ().clear();
    vd_Searcher::opQ().waitForDone();
    SearchIndex::setCurrent(nullptr);
    m_index->stop();
    m_index.reset();
}
