#include "metadata/NameTable.h"

#include "metadata/ContentTypes.h"
#include "metadata/Folding.h"
#include "metadata/QueryEvaluator.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

namespace {

class NameTableQuery : public ::testing::Test
{
protected:
    std::uint32_t add(std::uint32_t parent, const std::string &name, std::int64_t seconds,
                      bool folder = false, std::uint8_t flags = 0)
    {
        FileRecord record;
        record.id = m_nextId++;
        record.parent = parent;
        record.name = name;
        record.mtimeNs = seconds * 1000000000;
        record.flags = flags | (folder ? FileRecord::Folder : 0);
        record.type = ContentTypes::instance().codeForFileName(name, folder);
        m_records.push_back(record);
        return record.id;
    }

    std::vector<std::string> query(const QString &text, const std::string &scope = {}, std::size_t max = 600,
                                   bool descending = true)
    {
        auto parsed = parseQuery(text);
        EXPECT_TRUE(std::holds_alternative<QueryNode>(parsed)) << text.toStdString();
        if (!std::holds_alternative<QueryNode>(parsed))
            return {};
        bool whole = false;
        const auto scopeIds =
            scope.empty() ? std::vector<std::uint32_t>{} : QueryEvaluator::scopeIds(m_table, scope, whole);
        return QueryEvaluator::run(m_table, std::get<QueryNode>(parsed), scopeIds, descending, max,
                                   m_resolver);
    }

    NameTable m_table;
    std::vector<FileRecord> m_records;
    std::uint32_t m_nextId = 1;
    QueryEvaluator::Resolver m_resolver;
};

} // namespace

TEST_F(NameTableQuery, NamesTypesScopesOrderAndChangesShownAtOnce)
{
    const auto root = add(0, "/home/u", 1, true);
    const auto docs = add(root, "Documents", 2, true);
    const auto pics = add(root, "Pictures", 3, true);
    add(docs, "Résumé.pdf", 100);
    add(docs, "resume-old.PDF", 90);
    const auto notes = add(docs, "notes.txt", 80);
    add(docs, "zürich.txt", 70);
    add(pics, "beach.jpg", 60);
    add(pics, "Logo.PNG", 50);
    add(pics, "a.out~", 40, false, FileRecord::System);
    m_table.replaceAll(m_records);

    // Folded substring and prefix matching are checked against a model below. Without modifiers a name match
    // is exact and case-sensitive on the unfolded name.
    EXPECT_EQ(query(QStringLiteral("kMDItemFSName == \"Résumé.pdf\"")).size(), 1u);
    EXPECT_TRUE(query(QStringLiteral("kMDItemFSName == \"resume.pdf\"")).empty());
    EXPECT_TRUE(query(QStringLiteral("kMDItemFSName == \"Résumé\"")).empty());

    EXPECT_EQ(query(QStringLiteral("kMDItemContentTypeTree == \"public.image\"")),
              (std::vector<std::string>{"/home/u/Pictures/beach.jpg", "/home/u/Pictures/Logo.PNG"}));
    EXPECT_EQ(query(QStringLiteral("kMDItemContentTypeTree == \"com.adobe.pdf\"")).size(), 2u);
    EXPECT_EQ(query(QStringLiteral("kMDItemContentType == 'public.folder'")).size(), 3u); // the root too
    EXPECT_EQ(query(QStringLiteral("kMDItemContentTypeTree == \"public.text\" && "
                                   "kMDItemDisplayName == \"*z*\"cd")),
              std::vector<std::string>{"/home/u/Documents/zürich.txt"});

    // System files drop out; scope keeps to one folder; ascending order reverses.
    EXPECT_EQ(query(QStringLiteral("kMDItemFSName == \"*\" && kMDItemSupportFileType != MDSystemFile"),
                    "/home/u/Pictures"),
              (std::vector<std::string>{"/home/u/Pictures/beach.jpg", "/home/u/Pictures/Logo.PNG"}));
    EXPECT_EQ(
        query(QStringLiteral("kMDItemDisplayName == \"*.*\"cd"), "/home/u/Pictures", 600, false).front(),
        "/home/u/Pictures/a.out~");
    EXPECT_EQ(query(QStringLiteral("kMDItemPath == \"*/pictures/*\"cd")).size(), 3u);
    EXPECT_TRUE(query(QStringLiteral("kMDItemNoSuchThing == \"*\"")).empty());

    // A move with a rename, and a creation.
    m_table.upsert({notes, pics, "annual notes.txt", 200 * 1000000000ll, 5, 0, 0});
    m_table.upsert({100, docs, "fresh notes.txt", 300 * 1000000000ll, 1, 0, 0});
    EXPECT_EQ(
        query(QStringLiteral("kMDItemDisplayName == \"*notes*\"cd")),
        (std::vector<std::string>{"/home/u/Documents/fresh notes.txt", "/home/u/Pictures/annual notes.txt"}));
    EXPECT_EQ(query(QStringLiteral("kMDItemDisplayName == \"*notes*\"cd"), "/home/u/Pictures"),
              std::vector<std::string>{"/home/u/Pictures/annual notes.txt"});
    EXPECT_TRUE(query(QStringLiteral("kMDItemFSName == \"notes.txt\"")).empty());
    EXPECT_EQ(query(QStringLiteral("kMDItemFSName == \"fresh notes.txt\"")).size(), 1u);
    const NameTable::Reader reader = m_table.read();
    EXPECT_EQ(reader.idForPath("/home/u/Pictures/annual notes.txt"), std::optional<std::uint32_t>(notes));
    EXPECT_FALSE(reader.idForPath("/home/u/Documents/notes.txt"));
}

// Random renames, removals and rebuilds of the main segment, checked against a plain list after every step,
// the newest 20 in order. The terms cover every lookup: one and two bytes (pair postings, a first-byte pair
// for prefixes), longer (trigrams), a letter no name holds, a prefix whose first character is several bytes,
// and one byte unanchored.
TEST_F(NameTableQuery, AgreesWithABruteForceModelUnderRandomChanges)
{
    std::mt19937 rng(42);
    const char *const syllables[] = {"ab", "ré", "su", "mé", "zo", "x", "cap", "ÆR", "ﬁ", "a", "жи", "b"};
    auto randomName = [&] {
        std::string name;
        for (int i = 0, n = 1 + int(rng() % 4); i < n; ++i)
            name += syllables[rng() % 12];
        return name;
    };
    std::map<std::uint32_t, FileRecord> model;
    const auto root = add(0, "/r", 1, true);
    model[root] = m_records.back();
    for (int i = 0; i < 3000; ++i) {
        const auto id = add(root, randomName(), 10 + int(rng() % 500));
        model[id] = m_records.back();
    }
    m_table.replaceAll(m_records);
    const char *const terms[] = {"a", "re", "sum", "aeR", "fi", "zocap", "q", "Ж", "zo", "x", "ba", "é"};
    for (int step = 0; step < 40; ++step) {
        for (int change = 0; change < 120; ++change) {
            auto it = std::next(model.begin(), 1 + long(rng() % (model.size() - 1)));
            if (rng() % 3 == 0) {
                m_table.remove(it->first);
                model.erase(it);
            } else {
                FileRecord record = it->second;
                record.name = randomName();
                record.mtimeNs = std::int64_t(rng() % 1000) * 1000000000;
                m_table.upsert(record);
                it->second = record;
            }
            FileRecord fresh{m_nextId++, root, randomName(), std::int64_t(rng() % 1000) * 1000000000, 0,
                             0,          0};
            m_table.upsert(fresh);
            model[fresh.id] = fresh;
        }
        if (step % 5 == 4)
            m_table.compactIfLarge();
        for (int i = 0; i < int(std::size(terms)) * 2; ++i) {
            // Each term as a substring, then as a prefix.
            const QString term = QString::fromUtf8(terms[i / 2]);
            const bool prefix = i % 2;
            const QByteArray folded = Folding::fold(term);
            std::vector<std::pair<std::int64_t, std::uint32_t>> expected;
            for (const auto &[id, record] : model) {
                const QByteArray name = Folding::fold(std::string_view(record.name));
                if (record.parent != 0 && (prefix ? name.startsWith(folded) : name.contains(folded)))
                    expected.emplace_back(-record.mtimeNs, id);
            }
            std::sort(expected.begin(), expected.end());
            std::vector<std::string> paths;
            for (const auto &[negativeTime, id] : expected)
                paths.push_back("/r/" + model[id].name);
            if (paths.size() > 20)
                paths.resize(20);
            const QString text = prefix ? QStringLiteral("kMDItemDisplayName == \"%1*\"cd")
                                        : QStringLiteral("kMDItemDisplayName == \"*%1*\"cd");
            EXPECT_EQ(query(text.arg(term), {}, 20), paths)
                << "step " << step << " term " << term.toStdString();
        }
    }
}
