#pragma once

#include <QString>

#include <variant>
#include <vector>

// A parsed metadata query: comparisons joined by && and ||.
//   attr == "value"cdw    c: ignore case, d: ignore diacritics, w: a word of the attribute begins with value
//   attr != 'value'       negation of the same comparison
//   * == "x"              any attribute
//   attr == Identifier    a bare value, e.g. kMDItemSupportFileType != MDSystemFile
// A '*' inside a value matches any run of characters. Values are taken verbatim: there are no escapes,
// so a value can hold a backslash but never its own quote character.
struct QueryComparison
{
    QString attribute; // "*" for any attribute
    QString value;
    bool negated = false;
    bool ignoreCase = false;
    bool ignoreDiacritics = false;
    bool wordBased = false;
};

struct QueryNode
{
    enum class Kind { Comparison, And, Or };
    Kind kind = Kind::Comparison;
    QueryComparison comparison;      // Kind::Comparison
    std::vector<QueryNode> children; // Kind::And, Kind::Or: two or more
};

struct QueryError
{
    int position = 0; // index into the query text where parsing stopped
    QString message;
};

// Parses `text`. Never throws; a malformed text gives a QueryError with the position of the fault.
// Cost: linear in the text; nesting deeper than 64 levels is refused.
std::variant<QueryNode, QueryError> parseQuery(const QString &text);
