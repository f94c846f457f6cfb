#include "metadata/Query.h"

#include <optional>

namespace {

constexpr int kMaxDepth = 64;

struct Token
{
    enum class Type { End, LParen, RParen, And, Or, Equal, NotEqual, Word, String };
    Type type = Type::End;
    QString text;
    QString modifiers; // Type::String: the letters glued to the closing quote
    int position = 0;
};

bool isWordChar(QChar c)
{
    return c.isLetterOrNumber() || c == u'_' || c == u'.' || c == u'*' || c == u'-' || c == u':';
}

class Parser
{
public:
    explicit Parser(const QString &text)
        : m_text(text)
    {}

    std::variant<QueryNode, QueryError> run()
    {
        if (!advance())
            return *m_error;
        std::optional<QueryNode> root = parseOr(0);
        if (!root)
            return *m_error;
        if (m_token.type != Token::Type::End)
            return QueryError{m_token.position, QStringLiteral("unexpected text after the query")};
        return std::move(*root);
    }

private:
    bool fail(int position, const QString &message)
    {
        if (!m_error)
            m_error = QueryError{position, message};
        return false;
    }

    bool advance()
    {
        while (m_pos < m_text.size() && m_text[m_pos].isSpace())
            ++m_pos;
        m_token = Token{};
        m_token.position = int(m_pos);
        if (m_pos >= m_text.size())
            return true;
        const QChar c = m_text[m_pos];
        const QChar next = m_pos + 1 < m_text.size() ? m_text[m_pos + 1] : QChar();
        auto two = [&](Token::Type type) {
            m_token.type = type;
            m_pos += 2;
            return true;
        };
        if (c == u'(' || c == u')') {
            m_token.type = c == u'(' ? Token::Type::LParen : Token::Type::RParen;
            ++m_pos;
            return true;
        }
        if (c == u'&' && next == u'&')
            return two(Token::Type::And);
        if (c == u'|' && next == u'|')
            return two(Token::Type::Or);
        if (c == u'=' && next == u'=')
            return two(Token::Type::Equal);
        if (c == u'!' && next == u'=')
            return two(Token::Type::NotEqual);
        if (c == u'"' || c == u'\'') {
            const qsizetype close = m_text.indexOf(c, m_pos + 1);
            if (close < 0)
                return fail(int(m_pos), QStringLiteral("unterminated quoted value"));
            m_token.type = Token::Type::String;
            m_token.text = m_text.mid(m_pos + 1, close - m_pos - 1);
            m_pos = close + 1;
            while (m_pos < m_text.size() && m_text[m_pos].isLetterOrNumber()) {
                const QChar m = m_text[m_pos];
                if (m != u'c' && m != u'd' && m != u'w')
                    return fail(int(m_pos), QStringLiteral("unknown modifier '%1'").arg(m));
                m_token.modifiers += m;
                ++m_pos;
            }
            return true;
        }
        if (isWordChar(c)) {
            const qsizetype start = m_pos;
            while (m_pos < m_text.size() && isWordChar(m_text[m_pos]))
                ++m_pos;
            m_token.type = Token::Type::Word;
            m_token.text = m_text.mid(start, m_pos - start);
            return true;
        }
        return fail(int(m_pos), QStringLiteral("unexpected character '%1'").arg(c));
    }

    std::optional<QueryNode> parseOr(int depth)
    {
        return parseJoined(depth, Token::Type::Or, QueryNode::Kind::Or);
    }

    std::optional<QueryNode> parseJoined(int depth, Token::Type op, QueryNode::Kind kind)
    {
        std::optional<QueryNode> first = kind == QueryNode::Kind::Or
                                             ? parseJoined(depth, Token::Type::And, QueryNode::Kind::And)
                                             : parsePrimary(depth);
        if (!first)
            return std::nullopt;
        if (m_token.type != op)
            return first;
        QueryNode joined;
        joined.kind = kind;
        joined.children.push_back(std::move(*first));
        while (m_token.type == op) {
            if (!advance())
                return std::nullopt;
            std::optional<QueryNode> next = kind == QueryNode::Kind::Or
                                                ? parseJoined(depth, Token::Type::And, QueryNode::Kind::And)
                                                : parsePrimary(depth);
            if (!next)
                return std::nullopt;
            joined.children.push_back(std::move(*next));
        }
        return joined;
    }

    std::optional<QueryNode> parsePrimary(int depth)
    {
        if (m_token.type == Token::Type::LParen) {
            if (depth >= kMaxDepth) {
                fail(m_token.position, QStringLiteral("query nested too deeply"));
                return std::nullopt;
            }
            if (!advance())
                return std::nullopt;
            std::optional<QueryNode> inner = parseOr(depth + 1);
            if (!inner)
                return std::nullopt;
            if (m_token.type != Token::Type::RParen) {
                fail(m_token.position, QStringLiteral("expected ')'"));
                return std::nullopt;
            }
            if (!advance())
                return std::nullopt;
            return inner;
        }
        if (m_token.type != Token::Type::Word) {
            fail(m_token.position, QStringLiteral("expected an attribute name"));
            return std::nullopt;
        }
        QueryNode node;
        node.comparison.attribute = m_token.text;
        if (!advance())
            return std::nullopt;
        if (m_token.type != Token::Type::Equal && m_token.type != Token::Type::NotEqual) {
            fail(m_token.position, QStringLiteral("expected '==' or '!='"));
            return std::nullopt;
        }
        node.comparison.negated = m_token.type == Token::Type::NotEqual;
        if (!advance())
            return std::nullopt;
        if (m_token.type != Token::Type::String && m_token.type != Token::Type::Word) {
            fail(m_token.position, QStringLiteral("expected a value"));
            return std::nullopt;
        }
        node.comparison.value = m_token.text;
        node.comparison.ignoreCase = m_token.modifiers.contains(u'c');
        node.comparison.ignoreDiacritics = m_token.modifiers.contains(u'd');
        node.comparison.wordBased = m_token.modifiers.contains(u'w');
        if (!advance())
            return std::nullopt;
        return node;
    }

    const QString &m_text;
    qsizetype m_pos = 0;
    Token m_token;
    std::optional<QueryError> m_error;
};

} // namespace

std::variant<QueryNode, QueryError> parseQuery(const QString &text)
{
    return Parser(text).run();
}
