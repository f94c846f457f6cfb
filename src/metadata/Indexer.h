#pragma once

#include "metadata/IndexStore.h"
#include "metadata/MetadataConfig.h"
#include "metadata/NameTable.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <unordered_map>
#include <unordered_set>
#include <vector>

// Keeps the store and the name table in step with the disk: a first crawl (or a load from the store and a
// catch-up by folder modification times), inotify on every indexed folder, and extraction when nothing
// else is waiting. All of it runs on one thread, the indexing thread, or on the caller's thread in
// `runOnce`. It is the only writer of the table and the store.
class Indexer
{
public:
    Indexer(MetadataConfig config, NameTable &table);
    ~Indexer();
    Indexer(const Indexer &) = delete;
    Indexer &operator=(const Indexer &) = delete;

    // Starts the indexing thread (idle CPU and I/O priority unless the config says otherwise).
    void start();
    // Stops and joins the thread; safe to call twice.
    void stop();
    // Loads or crawls, catches up and extracts on the calling thread, then returns. No watching.
    bool runOnce();
    // Loads the stored table without looking at the disk; for a quick status.
    bool loadOnly();

    // True once the first crawl or catch-up has finished and no extraction or event is waiting.
    bool isIdle() const { return m_idle.load(); }
    // Asks the indexing thread to re-read every folder that changed, as after an event-queue overflow.
    void requestRescan();
    bool isCrawling() const { return m_crawling.load(); }
    int crawlPercent() const { return m_percent.load(); }

private:
    struct Pending
    {
        std::uint32_t id;
        std::string path;
        std::uint8_t flags;
        bool fresh;           // nothing of it is indexed yet
        unsigned long device; // folders on other devices are not entered
    };

    void run();
    bool openStore();
    void loadOrCrawl();
    void catchUp();
    void crawl(std::vector<Pending> pending);
    void takeEventsDuringCrawl(); // handles waiting inotify events between two folders of a crawl
    void scanFolder(const Pending &folder, std::vector<Pending> &next);
    void refreshEntry(std::uint32_t parent, const std::string &name);
    void moveEntry(std::uint32_t fromParent, const std::string &fromName, std::uint32_t toParent,
                   const std::string &toName);
    void removeTree(std::uint32_t id);
    void handleEvents();
    bool extractSome(int budgetMs);
    void addWatch(const std::string &path, std::uint32_t id);

    // Writes the progress to the store for `vandrel status` (every few seconds, or now when `now`), and
    // logs it at most once a minute while work remains.
    void reportProgress(bool now);

    bool inSystemFolder(const std::string &folderPath) const;
    bool excluded(const std::string &parentPath, const char *name, bool isFolder) const;
    FileRecord makeRecord(std::uint32_t parent, std::uint8_t parentFlags, const std::string &parentPath,
                          const char *name, const struct stat &st) const;
    void put(FileRecord &record, bool isNew);
    void noteChange();
    void commitIfLarge();

    MetadataConfig m_config;
    NameTable &m_table;
    std::unique_ptr<IndexStore> m_store; // indexing thread only
    std::vector<std::string> m_roots;
    std::unordered_set<std::string> m_rootSet;
    std::vector<std::string> m_excludedPaths;
    std::unordered_set<std::string> m_excludedNames;

    int m_inotify = -1;
    int m_wake = -1;
    std::unordered_map<int, std::uint32_t> m_wdToFolder; // indexing thread only
    bool m_watchLimitLogged = false;
    bool m_overflowLogged = false;
    std::atomic<bool> m_needCatchUp{false};
    bool m_bulk = false; // first crawl: records gather in m_bulkRecords
    std::vector<FileRecord> m_bulkRecords;
    std::size_t m_bulkShown = 0; // of m_bulkRecords, how many the table holds
    bool m_handlingEvents = false;
    std::size_t m_uncommitted = 0;
    std::size_t m_foldersDone = 0;
    std::uint32_t m_extractCursor = 0; // extraction walks the files by id, a pass at a time
    // Files the user changed since the first crawl: extracted before the rest of a pass.
    std::vector<std::uint32_t> m_changedFiles;

    // Progress of the crawl and of the extraction pass under way.
    std::size_t m_filesDone = 0;
    std::size_t m_foldersWaiting = 0;
    bool m_extractPass = false; // a pass over the store's pending files is under way
    std::size_t m_extractDone = 0;
    std::size_t m_extractWaiting = 0;
    std::chrono::steady_clock::time_point m_crawlStarted;
    std::chrono::steady_clock::time_point m_extractStarted;
    std::chrono::steady_clock::time_point m_progressWritten;
    std::chrono::steady_clock::time_point m_progressLogged;

    std::thread m_thread;
    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_idle{false};
    std::atomic<bool> m_crawling{false};
    std::atomic<int> m_percent{0};
};
