#include "metadata/NameTable.h"

#include "metadata/Folding.h"

#include <algorithm>
#include <cstring>
#include <mutex>

namespace {

constexpr std::uint32_t kNone = 0xffffffffu;

std::string_view lastComponent(std::string_view path, bool isRoot)
{
    if (!isRoot || path == "/")
        return path;
    const size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? path : path.substr(slash + 1);
}

std::size_t nameHash(std::string_view name)
{
    return std::hash<std::string_view>{}(name);
}

std::size_t childHash(std::uint32_t parent, std::string_view name)
{
    return nameHash(name) * 31 + parent * 0x9e3779b97f4a7c15ull;
}

std::uint32_t trigramKey(const char *p)
{
    return (std::uint32_t(static_cast<unsigned char>(p[0])) << 16) |
           (std::uint32_t(static_cast<unsigned char>(p[1])) << 8) |
           std::uint32_t(static_cast<unsigned char>(p[2]));
}

// Pairs share the trigram key space above every trigram; a pair starting with NUL marks a name's first byte.
constexpr std::uint32_t kPairFlag = 1u << 24;

std::uint32_t pairKey(const char *p)
{
    return kPairFlag | (std::uint32_t(static_cast<unsigned char>(p[0])) << 8) |
           std::uint32_t(static_cast<unsigned char>(p[1]));
}

// The keys a literal's hits must all carry: its pairs when it is short or begins at a name's start, else its
// trigrams.
std::vector<std::uint32_t> gramKeys(std::string_view literal)
{
    std::vector<std::uint32_t> keys;
    const bool pairs = literal.size() < 3 || literal.front() == '\0';
    for (std::size_t i = 0; i + (pairs ? 2 : 3) <= literal.size(); ++i)
        keys.push_back(pairs ? pairKey(literal.data() + i) : trigramKey(literal.data() + i));
    return keys;
}

void putVarint(std::vector<std::uint8_t> &out, std::uint32_t value)
{
    while (value >= 0x80) {
        out.push_back(std::uint8_t(value | 0x80));
        value >>= 7;
    }
    out.push_back(std::uint8_t(value));
}

std::uint32_t getVarint(const std::uint8_t *&p)
{
    std::uint32_t value = 0;
    int shift = 0;
    while (*p & 0x80) {
        value |= std::uint32_t(*p++ & 0x7f) << shift;
        shift += 7;
    }
    value |= std::uint32_t(*p++) << shift;
    return value;
}

// Open addressing at a load between 0.4 and 0.8: short probe runs for 4 bytes a slot.
std::size_t tableCapacity(std::size_t count)
{
    std::size_t capacity = 16;
    while (capacity < count + count / 4)
        capacity *= 2;
    return capacity;
}

} // namespace

struct NameTable::Main
{
    struct Row
    {
        std::uint32_t id;
        std::uint32_t parent;
        std::uint32_t nameOffset;
        std::uint32_t foldedOffset;
        std::uint16_t nameLength;
        std::uint16_t foldedLength;
        ContentTypes::Code type;
        std::uint8_t flags;
        std::int64_t mtimeNs;
        std::int64_t size;
    };
    std::vector<Row> rows; // newest first
    std::string names;     // raw names, NUL separated, row order
    std::string folded;    // folded last components, each preceded and followed by a NUL, row order
    std::vector<std::uint32_t> idToRow;
    std::vector<std::uint32_t> rootRows;
    std::vector<std::uint32_t> grams; // trigram and pair keys, sorted
    std::vector<std::uint32_t> gramOffsets;
    std::vector<std::uint32_t> gramCounts;
    std::vector<std::uint8_t> postings;    // per gram: varint row deltas, ascending
    std::vector<std::uint32_t> exactNames; // open addressing: row + 1, 0 empty
    std::vector<std::uint32_t> children;   // open addressing over (parent, name): row + 1, 0 empty

    std::string_view name(const Row &row) const { return {names.data() + row.nameOffset, row.nameLength}; }
    std::string_view lastName(const Row &row) const { return lastComponent(name(row), row.parent == 0); }
    std::string_view foldedName(const Row &row) const
    {
        return {folded.data() + row.foldedOffset, row.foldedLength};
    }

    std::size_t memoryBytes() const
    {
        return rows.capacity() * sizeof(Row) + idToRow.capacity() * 4 + grams.capacity() * 12 +
               postings.capacity() + exactNames.capacity() * 4 + children.capacity() * 4;
    }

    static std::shared_ptr<const Main> build(std::vector<std::pair<FileRecord, std::string>> entries);
};

std::shared_ptr<const NameTable::Main>
NameTable::Main::build(std::vector<std::pair<FileRecord, std::string>> entries)
{
    auto main = std::make_shared<Main>();
    std::sort(entries.begin(), entries.end(), [](const auto &a, const auto &b) {
        if (a.first.mtimeNs != b.first.mtimeNs)
            return a.first.mtimeNs > b.first.mtimeNs;
        return a.first.id < b.first.id;
    });
    std::size_t nameBytes = 0, foldedBytes = 0;
    std::uint32_t maxId = 0;
    for (const auto &[record, folded] : entries) {
        nameBytes += record.name.size() + 1;
        foldedBytes += folded.size() + 1;
        maxId = std::max(maxId, record.id);
    }
    main->rows.reserve(entries.size());
    main->names.reserve(nameBytes);
    main->folded.reserve(foldedBytes + 1);
    main->folded.push_back('\0'); // every name sits between two NULs, so a prefix is a search for "\0prefix"
    main->idToRow.assign(entries.empty() ? 0 : std::size_t(maxId) + 1, kNone);

    struct Postings
    {
        std::vector<std::uint8_t> bytes;
        std::uint32_t last = 0;
        std::uint32_t count = 0;
    };
    std::unordered_map<std::uint32_t, Postings> postingsByGram;
    std::vector<std::uint32_t> keys;
    for (auto &[record, folded] : entries) {
        const auto row = std::uint32_t(main->rows.size());
        Row r{};
        r.id = record.id;
        r.parent = record.parent;
        r.nameOffset = std::uint32_t(main->names.size());
        r.nameLength = std::uint16_t(std::min<std::size_t>(record.name.size(), 0xffff));
        r.foldedOffset = std::uint32_t(main->folded.size());
        r.foldedLength = std::uint16_t(std::min<std::size_t>(folded.size(), 0xffff));
        r.type = record.type;
        r.flags = record.flags;
        r.mtimeNs = record.mtimeNs;
        r.size = record.size;
        main->names.append(record.name, 0, r.nameLength).push_back('\0');
        main->folded.append(folded, 0, r.foldedLength).push_back('\0');
        main->rows.push_back(r);
        main->idToRow[record.id] = row;
        if (record.parent == 0)
            main->rootRows.push_back(row);

        keys.clear();
        for (std::size_t i = 0; i + 3 <= r.foldedLength; ++i)
            keys.push_back(trigramKey(folded.data() + i));
        // The blob puts a NUL before the name, so the first pair tells the name's first byte.
        const char *start = main->folded.data() + r.foldedOffset - 1;
        for (std::size_t i = 0; i + 2 <= std::size_t(r.foldedLength) + 1; ++i)
            keys.push_back(pairKey(start + i));
        std::sort(keys.begin(), keys.end());
        keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
        for (std::uint32_t key : keys) {
            Postings &postings = postingsByGram[key];
            putVarint(postings.bytes, postings.count == 0 ? row : row - postings.last);
            postings.last = row;
            ++postings.count;
        }
        std::string().swap(record.name);
        std::string().swap(folded);
    }

    main->grams.reserve(postingsByGram.size());
    for (const auto &entry : postingsByGram)
        main->grams.push_back(entry.first);
    std::sort(main->grams.begin(), main->grams.end());
    main->gramOffsets.reserve(postingsByGram.size());
    main->gramCounts.reserve(postingsByGram.size());
    std::size_t postingBytes = 0;
    for (const auto &entry : postingsByGram)
        postingBytes += entry.second.bytes.size();
    main->postings.reserve(postingBytes + 8);
    for (std::uint32_t key : main->grams) {
        Postings &postings = postingsByGram[key];
        main->gramOffsets.push_back(std::uint32_t(main->postings.size()));
        main->gramCounts.push_back(postings.count);
        main->postings.insert(main->postings.end(), postings.bytes.begin(), postings.bytes.end());
        std::vector<std::uint8_t>().swap(postings.bytes);
    }

    const std::size_t capacity = tableCapacity(main->rows.size());
    main->exactNames.assign(capacity, 0);
    main->children.assign(capacity, 0);
    for (std::uint32_t row = 0; row < main->rows.size(); ++row) {
        const Row &r = main->rows[row];
        const std::string_view name = main->lastName(r);
        for (std::size_t slot = nameHash(name) & (capacity - 1);; slot = (slot + 1) & (capacity - 1)) {
            if (main->exactNames[slot] == 0) {
                main->exactNames[slot] = row + 1;
                break;
            }
        }
        for (std::size_t slot = childHash(r.parent, name) & (capacity - 1);;
             slot = (slot + 1) & (capacity - 1)) {
            if (main->children[slot] == 0) {
                main->children[slot] = row + 1;
                break;
            }
        }
    }
    return main;
}

NameTable::NameTable()
    : m_main(Main::build({}))
{}

NameTable::~NameTable() = default;

void NameTable::replaceAll(std::vector<FileRecord> records)
{
    std::vector<std::pair<FileRecord, std::string>> entries;
    entries.reserve(records.size());
    for (FileRecord &record : records) {
        QByteArray folded = Folding::fold(lastComponent(record.name, record.parent == 0));
        entries.emplace_back(std::move(record), std::string(folded.constData(), std::size_t(folded.size())));
    }
    std::vector<FileRecord>().swap(records);
    installMain(std::move(entries));
}

void NameTable::upsert(FileRecord record)
{
    const QByteArray folded = Folding::fold(lastComponent(record.name, record.parent == 0));
    DeltaRecord delta{std::move(record), std::string(folded.constData(), std::size_t(folded.size()))};
    std::unique_lock lock(m_lock);
    const std::uint32_t id = delta.record.id;
    if (id < m_main->idToRow.size() && m_main->idToRow[id] != kNone && !m_tombstones[m_main->idToRow[id]]) {
        m_tombstones[m_main->idToRow[id]] = true;
        ++m_tombstoneCount;
    }
    m_deltaNameBytes += delta.record.name.size() + delta.folded.size();
    if (auto it = m_delta.find(id); it != m_delta.end()) {
        m_deltaNameBytes -= it->second.record.name.size() + it->second.folded.size();
        it->second = std::move(delta);
    } else {
        m_delta.emplace(id, std::move(delta));
    }
}

void NameTable::remove(std::uint32_t id)
{
    std::unique_lock lock(m_lock);
    if (auto it = m_delta.find(id); it != m_delta.end()) {
        m_deltaNameBytes -= it->second.record.name.size() + it->second.folded.size();
        m_delta.erase(it);
    }
    if (id < m_main->idToRow.size() && m_main->idToRow[id] != kNone && !m_tombstones[m_main->idToRow[id]]) {
        m_tombstones[m_main->idToRow[id]] = true;
        ++m_tombstoneCount;
    }
}

void NameTable::compactIfLarge()
{
    std::vector<std::pair<FileRecord, std::string>> entries;
    {
        std::shared_lock lock(m_lock);
        const std::size_t threshold = std::max<std::size_t>(1024, m_main->rows.size() / 16);
        if (m_delta.size() + m_tombstoneCount <= threshold)
            return;
        entries.reserve(m_main->rows.size() - m_tombstoneCount + m_delta.size());
        for (std::uint32_t row = 0; row < m_main->rows.size(); ++row) {
            if (m_tombstones[row])
                continue;
            const Main::Row &r = m_main->rows[row];
            FileRecord record{r.id,   r.parent, std::string(m_main->name(r)), r.mtimeNs, r.size,
                              r.type, r.flags};
            entries.emplace_back(std::move(record), std::string(m_main->foldedName(r)));
        }
        for (const auto &[id, delta] : m_delta)
            entries.emplace_back(delta.record, delta.folded);
    }
    // Only this thread writes, so nothing changed between the copy above and the swap below.
    installMain(std::move(entries));
}

void NameTable::installMain(std::vector<std::pair<FileRecord, std::string>> entries)
{
    std::shared_ptr<const Main> main = Main::build(std::move(entries));
    std::unique_lock lock(m_lock);
    m_main = std::move(main);
    m_delta.clear();
    m_deltaNameBytes = 0;
    m_tombstones.assign(m_main->rows.size(), false);
    m_tombstoneCount = 0;
}

std::size_t NameTable::size() const
{
    std::shared_lock lock(m_lock);
    return m_main->rows.size() - m_tombstoneCount + m_delta.size();
}

std::size_t NameTable::memoryBytes() const
{
    std::shared_lock lock(m_lock);
    return m_main->memoryBytes() + m_tombstones.capacity() / 8 + m_delta.size() * (sizeof(DeltaRecord) + 32);
}

std::size_t NameTable::nameBytes() const
{
    std::shared_lock lock(m_lock);
    return m_main->names.capacity() + m_main->folded.capacity() + m_deltaNameBytes;
}

NameTable::Reader NameTable::read() const
{
    return Reader(*this);
}

NameTable::Reader::Reader(const NameTable &table)
    : m_guard(table.m_lock)
    , m_table(table)
    , m_main(table.m_main)
{}

RecordView NameTable::Reader::mainView(std::uint32_t row) const
{
    const Main::Row &r = m_main->rows[row];
    return RecordView{r.id,   r.parent, m_main->lastName(r), m_main->foldedName(r), r.mtimeNs, r.size,
                      r.type, r.flags};
}

RecordView NameTable::Reader::deltaView(const DeltaRecord &delta) const
{
    const FileRecord &r = delta.record;
    return RecordView{r.id,   r.parent, lastComponent(r.name, r.parent == 0), delta.folded, r.mtimeNs, r.size,
                      r.type, r.flags};
}

std::optional<RecordView> NameTable::Reader::byId(std::uint32_t id) const
{
    if (auto it = m_table.m_delta.find(id); it != m_table.m_delta.end())
        return deltaView(it->second);
    if (id < m_main->idToRow.size()) {
        const std::uint32_t row = m_main->idToRow[id];
        if (row != kNone && !m_table.m_tombstones[row])
            return mainView(row);
    }
    return std::nullopt;
}

std::string NameTable::Reader::path(const RecordView &record) const
{
    std::vector<std::string_view> parts;
    std::optional<RecordView> current = record;
    for (int depth = 0; current && depth < 4096; ++depth) {
        if (current->parent == 0) {
            // A root keeps its whole path as its name.
            if (auto it = m_table.m_delta.find(current->id); it != m_table.m_delta.end())
                parts.push_back(it->second.record.name);
            else
                parts.push_back(m_main->name(m_main->rows[m_main->idToRow[current->id]]));
            std::string result(parts.back());
            for (auto it = parts.rbegin() + 1; it != parts.rend(); ++it) {
                if (result.empty() || result.back() != '/')
                    result.push_back('/');
                result.append(*it);
            }
            return result;
        }
        parts.push_back(current->name);
        current = byId(current->parent);
    }
    return {};
}

std::string NameTable::Reader::path(std::uint32_t id) const
{
    const std::optional<RecordView> record = byId(id);
    return record ? path(*record) : std::string();
}

std::vector<std::uint32_t> NameTable::Reader::roots() const
{
    std::vector<std::uint32_t> result;
    for (std::uint32_t row : m_main->rootRows) {
        if (!m_table.m_tombstones[row])
            result.push_back(m_main->rows[row].id);
    }
    for (const auto &[id, delta] : m_table.m_delta) {
        if (delta.record.parent == 0)
            result.push_back(id);
    }
    return result;
}

std::optional<std::uint32_t> NameTable::Reader::child(std::uint32_t parent, std::string_view name) const
{
    for (const auto &[id, delta] : m_table.m_delta) {
        if (delta.record.parent == parent && delta.record.name == name)
            return id;
    }
    const std::size_t mask = m_main->children.size() - 1;
    for (std::size_t slot = childHash(parent, name) & mask; m_main->children[slot] != 0;
         slot = (slot + 1) & mask) {
        const std::uint32_t row = m_main->children[slot] - 1;
        const Main::Row &r = m_main->rows[row];
        if (r.parent == parent && !m_table.m_tombstones[row] && m_main->lastName(r) == name)
            return r.id;
    }
    return std::nullopt;
}

std::optional<std::uint32_t> NameTable::Reader::idForPath(std::string_view path) const
{
    std::optional<std::uint32_t> best;
    std::size_t bestLength = 0;
    for (std::uint32_t root : roots()) {
        const std::optional<RecordView> record = byId(root);
        const std::string rootPath = this->path(root);
        if (!record || rootPath.empty())
            continue;
        const bool matches = path == rootPath ||
                             (path.size() > rootPath.size() && path.substr(0, rootPath.size()) == rootPath &&
                              (rootPath.back() == '/' || path[rootPath.size()] == '/'));
        if (matches && rootPath.size() >= bestLength) {
            best = root;
            bestLength = rootPath.size();
        }
    }
    if (!best)
        return std::nullopt;
    std::uint32_t current = *best;
    std::string_view rest = path.substr(bestLength);
    while (!rest.empty()) {
        while (!rest.empty() && rest.front() == '/')
            rest.remove_prefix(1);
        if (rest.empty())
            break;
        const std::size_t slash = rest.find('/');
        const std::string_view part = rest.substr(0, slash);
        const std::optional<std::uint32_t> next = child(current, part);
        if (!next)
            return std::nullopt;
        current = *next;
        rest = slash == std::string_view::npos ? std::string_view() : rest.substr(slash);
    }
    return current;
}

void NameTable::Reader::scanMain(const Visit &visit) const
{
    const std::vector<bool> &tombstones = m_table.m_tombstones;
    for (std::uint32_t row = 0; row < m_main->rows.size(); ++row) {
        if (!tombstones[row] && !visit(mainView(row)))
            return;
    }
}

void NameTable::Reader::scanMainContaining(std::string_view literal, const Visit &visit) const
{
    if (literal.empty()) {
        scanMain(visit);
        return;
    }
    const std::string &blob = m_main->folded;
    const std::vector<Main::Row> &rows = m_main->rows;
    std::size_t position = 0;
    while (position < blob.size()) {
        const void *hit =
            memmem(blob.data() + position, blob.size() - position, literal.data(), literal.size());
        if (!hit)
            return;
        const auto offset = std::uint32_t(static_cast<const char *>(hit) - blob.data());
        const auto it =
            std::upper_bound(rows.begin(), rows.end(), offset,
                             [](std::uint32_t value, const Main::Row &r) { return value < r.foldedOffset; });
        if (it == rows.begin())
            return;
        const auto row = std::uint32_t(it - rows.begin() - 1);
        if (!m_table.m_tombstones[row] && !visit(mainView(row)))
            return;
        position = rows[row].foldedOffset + rows[row].foldedLength;
    }
}

std::optional<std::size_t> NameTable::Reader::rarestGram(std::string_view literal) const
{
    std::optional<std::size_t> best;
    for (std::uint32_t key : gramKeys(literal)) {
        const auto it = std::lower_bound(m_main->grams.begin(), m_main->grams.end(), key);
        if (it == m_main->grams.end() || *it != key)
            return std::nullopt;
        const auto index = std::size_t(it - m_main->grams.begin());
        if (!best || m_main->gramCounts[index] < m_main->gramCounts[*best])
            best = index;
    }
    return best;
}

std::size_t NameTable::Reader::gramPostingCount(std::string_view literal) const
{
    const std::optional<std::size_t> index = rarestGram(literal);
    return index ? m_main->gramCounts[*index] : 0;
}

void NameTable::Reader::scanMainGrams(std::string_view literal, const Visit &visit) const
{
    const std::optional<std::size_t> index = rarestGram(literal);
    if (!index)
        return;
    const std::uint8_t *p = m_main->postings.data() + m_main->gramOffsets[*index];
    std::uint32_t row = 0;
    for (std::uint32_t i = 0; i < m_main->gramCounts[*index]; ++i) {
        row = i == 0 ? getVarint(p) : row + getVarint(p);
        if (!m_table.m_tombstones[row] && !visit(mainView(row)))
            return;
    }
}

void NameTable::Reader::scanMainExactName(std::string_view name, const Visit &visit) const
{
    std::vector<std::uint32_t> rows;
    const std::size_t mask = m_main->exactNames.size() - 1;
    for (std::size_t slot = nameHash(name) & mask; m_main->exactNames[slot] != 0; slot = (slot + 1) & mask) {
        const std::uint32_t row = m_main->exactNames[slot] - 1;
        if (!m_table.m_tombstones[row] && m_main->lastName(m_main->rows[row]) == name)
            rows.push_back(row);
    }
    std::sort(rows.begin(), rows.end());
    for (std::uint32_t row : rows) {
        if (!visit(mainView(row)))
            return;
    }
}

void NameTable::Reader::scanDelta(const Visit &visit) const
{
    for (const auto &[id, delta] : m_table.m_delta) {
        if (!visit(deltaView(delta)))
            return;
    }
}

std::size_t NameTable::Reader::mainRows() const
{
    return m_main->rows.size();
}
