#pragma once

#include "metadata/ContentTypes.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

// One file or folder as the index knows it. A root (parent 0) holds its whole path as its name.
struct FileRecord
{
    enum Flag : std::uint8_t { Folder = 1, System = 2 };
    std::uint32_t id = 0;
    std::uint32_t parent = 0;
    std::string name;
    std::int64_t mtimeNs = 0;
    std::int64_t size = 0;
    ContentTypes::Code type = 0;
    std::uint8_t flags = 0;

    bool isFolder() const { return flags & Folder; }
};

// A record as a query sees it; the views stay valid while the NameTable::Reader that gave them lives.
struct RecordView
{
    std::uint32_t id = 0;
    std::uint32_t parent = 0;
    std::string_view name;   // last path component
    std::string_view folded; // folded last path component
    std::int64_t mtimeNs = 0;
    std::int64_t size = 0;
    ContentTypes::Code type = 0;
    std::uint8_t flags = 0;
};

// The in-memory name table: every record newest first, trigram and byte-pair postings over folded names (the
// pairs keep one- and two-character searches off a full scan), a hash of exact
// names and one of (folder, name) pairs. Changes go to a small delta segment with tombstones over the
// main segment, which is rebuilt when the delta grows. One writer thread; any number of readers, which
// hold a shared lock only while they scan.
class NameTable
{
public:
    NameTable();
    ~NameTable();

    // Writer side. Each call takes the exclusive lock briefly.
    void replaceAll(std::vector<FileRecord> records); // builds a fresh main segment
    void upsert(FileRecord record);
    void remove(std::uint32_t id);
    // Merges the delta into a new main segment when it holds more than a sixteenth of the table.
    void compactIfLarge();

    std::size_t size() const;
    std::size_t memoryBytes() const; // everything but the names
    std::size_t nameBytes() const;   // raw and folded names

    class Reader;
    Reader read() const;

    struct Main;

private:
    struct DeltaRecord
    {
        FileRecord record;
        std::string folded;
    };
    std::vector<DeltaRecord> collectLiveLocked() const;
    // Builds a main segment from the entries (outside the lock) and puts it in place of everything.
    void installMain(std::vector<std::pair<FileRecord, std::string>> entries);

    mutable std::shared_mutex m_lock;
    std::shared_ptr<const Main> m_main;                     // guarded by m_lock
    std::unordered_map<std::uint32_t, DeltaRecord> m_delta; // guarded by m_lock
    std::vector<bool> m_tombstones;                         // main rows replaced or removed; m_lock
    std::size_t m_tombstoneCount = 0;                       // guarded by m_lock
    std::size_t m_deltaNameBytes = 0;                       // guarded by m_lock

    friend class Reader;
};

class NameTable::Reader
{
public:
    using Visit = std::function<bool(const RecordView &)>; // return false to stop

    std::optional<RecordView> byId(std::uint32_t id) const;
    // The full path of a record, empty when an ancestor is missing.
    std::string path(std::uint32_t id) const;
    std::string path(const RecordView &record) const;
    // The record at an absolute path, walking down from the root that holds it.
    std::optional<std::uint32_t> idForPath(std::string_view path) const;
    std::vector<std::uint32_t> roots() const;

    // Main-segment scans, newest first, skipping replaced rows. Each stops when `visit` returns false.
    void scanMain(const Visit &visit) const;
    // Rows whose folded name contains `literal` (any length), found with a memmem over the name blob.
    void scanMainContaining(std::string_view literal, const Visit &visit) const;
    // A superset of the rows whose folded name contains `literal` (two bytes or more): the postings of its
    // rarest trigram, or of its rarest byte pair when it is two bytes long or begins with a NUL, which stands
    // for the start of a name ("\0e" covers names starting with "e").
    void scanMainGrams(std::string_view literal, const Visit &visit) const;
    std::size_t gramPostingCount(std::string_view literal) const; // of the rarest gram
    void scanMainExactName(std::string_view name, const Visit &visit) const;
    // Every delta record, in no order.
    void scanDelta(const Visit &visit) const;
    std::size_t mainRows() const;

private:
    friend class NameTable;
    explicit Reader(const NameTable &table);
    RecordView mainView(std::uint32_t row) const;
    std::optional<std::size_t> rarestGram(std::string_view literal) const; // an index into the gram keys
    RecordView deltaView(const DeltaRecord &record) const;
    std::optional<std::uint32_t> child(std::uint32_t parent, std::string_view name) const;

    std::shared_lock<std::shared_mutex> m_guard;
    const NameTable &m_table;
    std::shared_ptr<const Main> m_main;
};
