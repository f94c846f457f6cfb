#include "metadata/QueryEvaluator.h"

#include "metadata/Folding.h"

#include <algorithm>
#include <map>
#include <memory>
#include <unordered_map>

namespace {

const QString kAnyAttribute = QStringLiteral("*");

// A glob over bytes: '*' matches any run. Word-based patterns must begin at the start of a word and may
// end anywhere.
struct Pattern
{
    std::vector<std::string> segments;
    bool anchoredStart = true;
    bool anchoredEnd = true;
    bool folded = false;
    bool wordBased = false;

    static Pattern make(const QueryComparison &comparison)
    {
        Pattern p;
        p.folded = comparison.ignoreCase || comparison.ignoreDiacritics;
        p.wordBased = comparison.wordBased;
        const QByteArray value = p.folded ? Folding::fold(comparison.value) : comparison.value.toUtf8();
        p.anchoredStart = !value.startsWith('*');
        p.anchoredEnd = !value.endsWith('*') && !p.wordBased;
        for (const QByteArray &part : value.split('*')) {
            if (!part.isEmpty())
                p.segments.emplace_back(part.constData(), std::size_t(part.size()));
        }
        return p;
    }

    // The longest literal piece, as it appears in folded names.
    std::string longestFoldedLiteral() const
    {
        std::string best;
        for (const std::string &segment : segments) {
            const std::string literal =
                folded ? segment : Folding::fold(std::string_view(segment)).toStdString();
            if (literal.size() > best.size())
                best = literal;
        }
        return best;
    }

    bool matchFrom(std::string_view text, bool anchorStart) const
    {
        if (segments.empty())
            return !anchoredStart || !anchoredEnd || text.empty() || !anchorStart;
        std::size_t position = 0;
        for (std::size_t i = 0; i < segments.size(); ++i) {
            const std::string &segment = segments[i];
            const bool last = i + 1 == segments.size();
            if (i == 0 && anchorStart) {
                if (text.substr(0, segment.size()) != segment)
                    return false;
                position = segment.size();
                if (last && anchoredEnd)
                    return position == text.size();
                continue;
            }
            if (last && anchoredEnd) {
                return text.size() >= position + segment.size() &&
                       text.substr(text.size() - segment.size()) == segment;
            }
            const std::size_t found = text.find(segment, position);
            if (found == std::string_view::npos)
                return false;
            position = found + segment.size();
        }
        return true;
    }

    bool matches(std::string_view raw, std::string_view foldedText) const
    {
        const std::string_view text = folded ? foldedText : raw;
        if (!wordBased)
            return matchFrom(text, anchoredStart);
        for (std::size_t i = 0; i < text.size(); ++i) {
            const bool wordStart = Folding::isWordByte(static_cast<unsigned char>(text[i])) &&
                                   (i == 0 || !Folding::isWordByte(static_cast<unsigned char>(text[i - 1])));
            if (wordStart && matchFrom(text.substr(i), anchoredStart))
                return true;
        }
        return false;
    }
};

enum class Target { Name, Path, Type, TypeTree, SystemFile, Size, Date, Ids, NameOrIds, Nothing };

struct Compiled
{
    QueryNode::Kind kind = QueryNode::Kind::Comparison;
    Target target = Target::Nothing;
    bool negated = false;
    bool exactName = false; // a plain kMDItemFSName == "x"
    Pattern pattern;
    std::vector<bool> typeCodes;
    std::shared_ptr<QueryEvaluator::IdSet> ids;
    std::vector<Compiled> children;
};

bool isNameAttribute(const QString &attribute)
{
    return attribute == u"kMDItemFSName" || attribute == u"kMDItemDisplayName";
}

// Id sets fetched once per query: a search asks for the same words through `*` and kMDItemTextContent.
using IdSetCache = std::map<QString, std::shared_ptr<QueryEvaluator::IdSet>>;

Compiled compile(const QueryNode &node, const QueryEvaluator::Resolver &resolver, IdSetCache &cache)
{
    Compiled c;
    c.kind = node.kind;
    if (node.kind != QueryNode::Kind::Comparison) {
        for (const QueryNode &child : node.children)
            c.children.push_back(compile(child, resolver, cache));
        return c;
    }
    const QueryComparison &cmp = node.comparison;
    c.negated = cmp.negated;
    c.pattern = Pattern::make(cmp);
    const QString &attribute = cmp.attribute;
    if (isNameAttribute(attribute)) {
        c.target = Target::Name;
        c.exactName = attribute == u"kMDItemFSName" && !c.pattern.folded && !c.pattern.wordBased &&
                      !cmp.value.contains(u'*');
    } else if (attribute == u"kMDItemPath") {
        c.target = Target::Path;
    } else if (attribute == u"kMDItemContentType" || attribute == u"kMDItemContentTypeTree") {
        c.target = attribute == u"kMDItemContentType" ? Target::Type : Target::TypeTree;
        const Pattern pattern = c.pattern;
        c.typeCodes =
            ContentTypes::instance().codesMatching(c.target == Target::TypeTree, [&](const QString &id) {
                const QByteArray bytes = pattern.folded ? Folding::fold(id) : id.toUtf8();
                const std::string_view text(bytes.constData(), std::size_t(bytes.size()));
                return pattern.matches(text, text);
            });
    } else if (attribute == u"kMDItemSupportFileType") {
        c.target = Target::SystemFile;
        if (cmp.value != u"MDSystemFile")
            c.target = Target::Nothing;
    } else if (attribute == u"kMDItemFSSize") {
        c.target = Target::Size;
    } else if (attribute == u"kMDItemContentModificationDate" || attribute == u"kMDItemFSContentChangeDate") {
        c.target = Target::Date;
    } else if (attribute == kAnyAttribute || QueryEvaluator::isKnownAttribute(attribute)) {
        c.target = attribute == kAnyAttribute ? Target::NameOrIds : Target::Ids;
        const bool words =
            attribute == u"kMDItemTextContent" || (attribute == kAnyAttribute && cmp.wordBased);
        const QString key = (words ? QStringLiteral("words") : attribute) + u'\n' + cmp.value + u'\n' +
                            QString::number(cmp.ignoreCase) + QString::number(cmp.ignoreDiacritics) +
                            QString::number(cmp.wordBased);
        std::shared_ptr<QueryEvaluator::IdSet> &ids = cache[key];
        if (!ids)
            ids = std::make_shared<QueryEvaluator::IdSet>(resolver ? resolver(cmp) : QueryEvaluator::IdSet());
        c.ids = ids;
    }
    return c;
}

struct Context
{
    const NameTable::Reader &reader;
    const std::vector<std::uint32_t> &scopeIds;
};

// Whether records lie in the scope: strictly below one of its folders, or one of several roots that stand for
// a scope above them (a scope folder itself is not inside). The answer is kept for every folder a walk up
// passes: hits share their upper folders, so most walks stop after a step or two instead of at the root.
class ScopeMembership
{
public:
    ScopeMembership(const NameTable::Reader &reader, const std::vector<std::uint32_t> &scopeIds)
        : m_reader(reader)
        , m_scopeIds(scopeIds)
    {
        for (const std::uint32_t id : scopeIds)
            m_inside.emplace(id, true);
    }

    bool contains(const RecordView &r)
    {
        if (m_scopeIds.empty())
            return true;
        if (r.parent == 0)
            return m_scopeIds.size() > 1 &&
                   std::find(m_scopeIds.begin(), m_scopeIds.end(), r.id) != m_scopeIds.end();
        return folderInside(r.parent);
    }

private:
    // A scope folder, or a folder strictly below one.
    bool folderInside(std::uint32_t folder)
    {
        std::vector<std::uint32_t> walked;
        bool inside = false;
        for (std::uint32_t current = folder; walked.size() < kMaxDepth;) {
            if (const auto known = m_inside.find(current); known != m_inside.end()) {
                inside = known->second;
                break;
            }
            walked.push_back(current);
            const std::optional<RecordView> record = m_reader.byId(current);
            if (!record || record->parent == 0)
                break;
            current = record->parent;
        }
        for (const std::uint32_t id : walked)
            m_inside.emplace(id, inside);
        return inside;
    }

    static constexpr std::size_t kMaxDepth = 4096;
    const NameTable::Reader &m_reader;
    const std::vector<std::uint32_t> &m_scopeIds;
    std::unordered_map<std::uint32_t, bool> m_inside;
};

bool evalComparison(const Compiled &c, const RecordView &r, const Context &context)
{
    switch (c.target) {
    case Target::Name:
        return c.pattern.matches(r.name, r.folded);
    case Target::Path: {
        const std::string path = context.reader.path(r);
        const QByteArray folded = c.pattern.folded ? Folding::fold(std::string_view(path)) : QByteArray();
        return c.pattern.matches(path, std::string_view(folded.constData(), std::size_t(folded.size())));
    }
    case Target::Type:
    case Target::TypeTree:
        return r.type < c.typeCodes.size() && c.typeCodes[r.type];
    case Target::SystemFile:
        return r.flags & FileRecord::System;
    case Target::Size: {
        const std::string text = std::to_string(r.size);
        return c.pattern.matches(text, text);
    }
    case Target::Date: {
        const std::string text = std::to_string(r.mtimeNs / 1000000000);
        return c.pattern.matches(text, text);
    }
    case Target::Ids:
        return c.ids->count(r.id) > 0;
    case Target::NameOrIds:
        return c.pattern.matches(r.name, r.folded) || c.ids->count(r.id) > 0;
    case Target::Nothing:
        return false;
    }
    return false;
}

bool eval(const Compiled &c, const RecordView &r, const Context &context)
{
    switch (c.kind) {
    case QueryNode::Kind::Comparison:
        return evalComparison(c, r, context) != c.negated;
    case QueryNode::Kind::And:
        return std::all_of(c.children.begin(), c.children.end(),
                           [&](const Compiled &child) { return eval(child, r, context); });
    case QueryNode::Kind::Or:
        return std::any_of(c.children.begin(), c.children.end(),
                           [&](const Compiled &child) { return eval(child, r, context); });
    }
    return false;
}

// A way to enumerate a superset of a clause's hits from the main segment, newest first.
struct Source
{
    enum class Kind { Exact, Grams, Containing, Ids } kind;
    std::string literal;
    std::shared_ptr<QueryEvaluator::IdSet> ids;
    std::size_t cost = 0;
};

std::optional<std::vector<Source>> sourcesFor(const Compiled &c, const NameTable::Reader &reader)
{
    const std::size_t rows = reader.mainRows();
    auto nameSource = [&](const Pattern &pattern) -> std::optional<Source> {
        const std::string literal = pattern.longestFoldedLiteral();
        if (literal.empty())
            return std::nullopt;
        if (pattern.anchoredStart && !pattern.wordBased && literal.size() < 3) {
            // A short prefix: the NUL before every name in the table makes it a pair lookup.
            const std::string &first = pattern.segments.front();
            const std::string prefix =
                '\0' + (pattern.folded ? first : Folding::fold(std::string_view(first)).toStdString());
            return Source{Source::Kind::Grams, prefix, nullptr, reader.gramPostingCount(prefix)};
        }
        if (literal.size() >= 2)
            return Source{Source::Kind::Grams, literal, nullptr, reader.gramPostingCount(literal)};
        return Source{Source::Kind::Containing, literal, nullptr, rows / 4};
    };
    switch (c.kind) {
    case QueryNode::Kind::Comparison: {
        if (c.negated)
            return std::nullopt;
        if (c.target == Target::Name && c.exactName) {
            const std::string value = c.pattern.segments.empty() ? std::string() : c.pattern.segments.front();
            return std::vector<Source>{Source{Source::Kind::Exact, value, nullptr, 1}};
        }
        if (c.target == Target::Name) {
            if (auto source = nameSource(c.pattern))
                return std::vector<Source>{*source};
            return std::nullopt;
        }
        if (c.target == Target::Ids)
            return std::vector<Source>{Source{Source::Kind::Ids, {}, c.ids, c.ids->size()}};
        if (c.target == Target::NameOrIds) {
            auto source = nameSource(c.pattern);
            if (!source)
                return std::nullopt;
            return std::vector<Source>{*source, Source{Source::Kind::Ids, {}, c.ids, c.ids->size()}};
        }
        if (c.target == Target::Nothing)
            return std::vector<Source>{};
        return std::nullopt;
    }
    case QueryNode::Kind::And: {
        std::optional<std::vector<Source>> best;
        std::size_t bestCost = 0;
        for (const Compiled &child : c.children) {
            auto sources = sourcesFor(child, reader);
            if (!sources)
                continue;
            std::size_t cost = 0;
            for (const Source &source : *sources)
                cost += source.cost;
            if (!best || cost < bestCost) {
                best = std::move(sources);
                bestCost = cost;
            }
        }
        return best;
    }
    case QueryNode::Kind::Or: {
        std::vector<Source> all;
        for (const Compiled &child : c.children) {
            auto sources = sourcesFor(child, reader);
            if (!sources)
                return std::nullopt;
            for (Source &source : *sources) {
                const bool repeated = std::any_of(all.begin(), all.end(), [&](const Source &known) {
                    return known.kind == source.kind && known.literal == source.literal &&
                           known.ids == source.ids;
                });
                if (!repeated)
                    all.push_back(std::move(source));
            }
        }
        return all;
    }
    }
    return std::nullopt;
}

struct Hit
{
    std::int64_t mtimeNs;
    std::uint32_t id;
};

bool newerFirst(const Hit &a, const Hit &b)
{
    return a.mtimeNs != b.mtimeNs ? a.mtimeNs > b.mtimeNs : a.id < b.id;
}

} // namespace

bool QueryEvaluator::isTableAttribute(const QString &attribute)
{
    static const QStringList attributes = {
        QStringLiteral("kMDItemFSName"),
        QStringLiteral("kMDItemDisplayName"),
        QStringLiteral("kMDItemPath"),
        QStringLiteral("kMDItemContentType"),
        QStringLiteral("kMDItemContentTypeTree"),
        QStringLiteral("kMDItemSupportFileType"),
        QStringLiteral("kMDItemFSSize"),
        QStringLiteral("kMDItemContentModificationDate"),
        QStringLiteral("kMDItemFSContentChangeDate"),
    };
    return attributes.contains(attribute);
}

bool QueryEvaluator::isKnownAttribute(const QString &attribute)
{
    static const QStringList attributes = {
        QStringLiteral("kMDItemTextContent"), QStringLiteral("kMDItemTitle"),
        QStringLiteral("kMDItemAuthors"),     QStringLiteral("kMDItemKeywords"),
        QStringLiteral("kMDItemOMUserTags"),  QStringLiteral("kMDItemPixelWidth"),
        QStringLiteral("kMDItemPixelHeight"), QStringLiteral("kMDItemPageWidth"),
        QStringLiteral("kMDItemPageHeight"),  QStringLiteral("kMDItemNumberOfPages"),
        QStringLiteral("kMDItemOrientation"), QStringLiteral("kMDItemSubject"),
    };
    return isTableAttribute(attribute) || attributes.contains(attribute);
}

std::function<bool(const QString &)> QueryEvaluator::valueMatcher(const QueryComparison &comparison)
{
    return [pattern = Pattern::make(comparison)](const QString &value) {
        const QByteArray raw = value.toUtf8();
        const QByteArray folded = pattern.folded ? Folding::fold(value) : QByteArray();
        return pattern.matches(std::string_view(raw.constData(), std::size_t(raw.size())),
                               std::string_view(folded.constData(), std::size_t(folded.size())));
    };
}

std::vector<std::uint32_t> QueryEvaluator::scopeIds(const NameTable &table, const std::string &scope,
                                                    bool &whole)
{
    whole = false;
    const NameTable::Reader reader = table.read();
    if (auto id = reader.idForPath(scope))
        return {*id};
    std::string prefix = scope;
    if (prefix.empty() || prefix.back() != '/')
        prefix.push_back('/');
    std::vector<std::uint32_t> below;
    const std::vector<std::uint32_t> roots = reader.roots();
    for (std::uint32_t root : roots) {
        const std::string path = reader.path(root);
        if (path.compare(0, prefix.size(), prefix) == 0)
            below.push_back(root);
    }
    whole = !roots.empty() && below.size() == roots.size();
    return below;
}

std::vector<std::string> QueryEvaluator::run(const NameTable &table, const QueryNode &query,
                                             const std::vector<std::uint32_t> &scopeIds, bool descending,
                                             std::size_t maxCount, const Resolver &resolver)
{
    IdSetCache cache;
    const Compiled compiled = compile(query, resolver, cache);
    const NameTable::Reader reader = table.read();
    const Context context{reader, scopeIds};
    ScopeMembership scope(reader, scopeIds);
    const auto inScope = [&](const RecordView &r) { return scope.contains(r); };
    const std::size_t limit = descending ? maxCount : std::size_t(-1);
    std::vector<Hit> hits;
    std::unordered_set<std::uint32_t> seen;
    auto collect = [&](std::size_t &taken) {
        return [&](const RecordView &r) {
            if (eval(compiled, r, context) && inScope(r) && seen.insert(r.id).second) {
                hits.push_back(Hit{r.mtimeNs, r.id});
                ++taken;
            }
            return taken < limit;
        };
    };

    if (maxCount > 0) {
        const std::optional<std::vector<Source>> sources = sourcesFor(compiled, reader);
        if (!sources) {
            std::size_t taken = 0;
            reader.scanMain(collect(taken));
        } else {
            for (const Source &source : *sources) {
                std::size_t taken = 0;
                switch (source.kind) {
                case Source::Kind::Exact:
                    reader.scanMainExactName(source.literal, collect(taken));
                    break;
                case Source::Kind::Grams:
                    reader.scanMainGrams(source.literal, collect(taken));
                    break;
                case Source::Kind::Containing:
                    reader.scanMainContaining(source.literal, collect(taken));
                    break;
                case Source::Kind::Ids: {
                    std::vector<RecordView> records;
                    records.reserve(source.ids->size());
                    for (std::uint32_t id : *source.ids) {
                        if (auto record = reader.byId(id))
                            records.push_back(*record);
                    }
                    std::sort(records.begin(), records.end(), [](const RecordView &a, const RecordView &b) {
                        return newerFirst(Hit{a.mtimeNs, a.id}, Hit{b.mtimeNs, b.id});
                    });
                    auto visit = collect(taken);
                    for (const RecordView &record : records) {
                        if (!visit(record))
                            break;
                    }
                    break;
                }
                }
            }
        }
        // The delta is small and unordered: every record is checked.
        reader.scanDelta([&](const RecordView &r) {
            if (eval(compiled, r, context) && inScope(r) && seen.insert(r.id).second)
                hits.push_back(Hit{r.mtimeNs, r.id});
            return true;
        });
    }

    std::sort(hits.begin(), hits.end(), newerFirst);
    if (!descending)
        std::reverse(hits.begin(), hits.end());
    if (hits.size() > maxCount)
        hits.resize(maxCount);
    std::vector<std::string> paths;
    paths.reserve(hits.size());
    for (const Hit &hit : hits) {
        std::string path = reader.path(hit.id);
        if (!path.empty())
            paths.push_back(std::move(path));
    }
    return paths;
}
