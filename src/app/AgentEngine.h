#pragma once

#include <memory>

class MetadataIndex;

// The request engine with the metadata index it searches: started once by either face, stopped when the
// event loop has ended.
class AgentEngine
{
public:
    AgentEngine();
    ~AgentEngine();
    AgentEngine(const AgentEngine &) = delete;
    AgentEngine &operator=(const AgentEngine &) = delete;

    // Loads the index on its own thread, registers the request handlers and starts the relay loop.
    void start();
    // Cancels relay traffic, lets running operations finish and stops the index.
    void stop();

private:
    std::unique_ptr<MetadataIndex> m_index;
};
