#pragma once

#include "metadata/NameTable.h"
#include "metadata/Query.h"

#include <functional>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

// Runs a parsed query over the name table. Name, path, type and system-file clauses are answered from the
// table; clauses over other attributes (text content, titles, keywords...) from id sets the caller's
// resolver supplies, fetched before the table is locked.
class QueryEvaluator
{
public:
    using IdSet = std::unordered_set<std::uint32_t>;
    using Resolver = std::function<IdSet(const QueryComparison &)>;

    // Attributes answered from the table itself; any other known attribute goes to the resolver.
    static bool isTableAttribute(const QString &attribute);
    static bool isKnownAttribute(const QString &attribute);
    // The comparison's value test alone (modifiers and wildcards applied), for attribute values kept outside
    // the table.
    static std::function<bool(const QString &)> valueMatcher(const QueryComparison &comparison);

    // Paths of matching records below `scopeIds` (all records when empty), sorted by modification time
    // (newest first when `descending`), at most `maxCount`. Newest-first queries stop as soon as
    // `maxCount` hits are certain; the cost is then bounded by the most selective indexed clause.
    static std::vector<std::string> run(const NameTable &table, const QueryNode &query,
                                        const std::vector<std::uint32_t> &scopeIds, bool descending,
                                        std::size_t maxCount, const Resolver &resolver);

    // The ids a scope path stands for in the table: the folder itself, or the roots below it. Empty when
    // the table knows nothing there; `whole` is set for "/" when every root lies below it.
    static std::vector<std::uint32_t> scopeIds(const NameTable &table, const std::string &scope, bool &whole);
};
