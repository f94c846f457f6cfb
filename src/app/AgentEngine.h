#pragma once

#include <memory>

class FileLinkHandler;
class InstanceChannel;
class MetadataIndex;

// The request engine with the metadata index it searches, and the door through which later `vandrel open`
// and `vandrel link` commands reach this instance: started once by either face, stopped when the event loop
// has ended.
class AgentEngine
{
public:
    // A headless engine prints the files that links resolve to instead of showing them in a file manager.
    explicit AgentEngine(bool headless);
    ~AgentEngine();
    AgentEngine(const AgentEngine &) = delete;
    AgentEngine &operator=(const AgentEngine &) = delete;

    // Loads the index on its own thread, registers the request handlers, starts indexing the uploads for
    // matched files, starts the relay loop and becomes the running instance.
    void start();
    // Cancels relay traffic, lets running operations finish and stops the index.
    void stop();

    // Present between start() and stop().
    FileLinkHandler *links() const { return m_links.get(); }

private:
    bool m_headless;
    std::unique_ptr<MetadataIndex> m_index;
    std::unique_ptr<FileLinkHandler> m_links;
    std::unique_ptr<InstanceChannel> m_instance;
};
