#include "metadata/Query.h"

#include "metadata/Folding.h"

#include <gtest/gtest.h>

namespace {

QueryNode parsed(const QString &text)
{
    auto result = parseQuery(text);
    if (auto *error = std::get_if<QueryError>(&result))
        ADD_FAILURE() << "'" << text.toStdString() << "' failed at " << error->position << ": "
                      << error->message.toStdString();
    return std::holds_alternative<QueryNode>(result) ? std::get<QueryNode>(result) : QueryNode{};
}

int errorPosition(const QString &text)
{
    auto result = parseQuery(text);
    return std::holds_alternative<QueryError>(result) ? std::get<QueryError>(result).position : -1;
}

std::string folded(const QString &text)
{
    return Folding::fold(text).toStdString();
}

} // namespace

TEST(QueryParser, ParsesEveryShapeTheSearchesBuild)
{
    // Name, type, any-attribute and system-file clauses joined the way a search joins them.
    const QueryNode search = parsed(QStringLiteral(
        "( kMDItemDisplayName == \"*re*\"cd ) && ( kMDItemContentTypeTree == \"com.adobe.pdf\" ) && "
        "( * == \"tax*\"cdw || kMDItemTextContent == \"tax*\"cdw ) && (kMDItemSupportFileType != "
        "MDSystemFile)"));
    ASSERT_EQ(search.kind, QueryNode::Kind::And);
    ASSERT_EQ(search.children.size(), 4u);
    const QueryComparison &name = search.children[0].comparison;
    EXPECT_EQ(name.attribute, QStringLiteral("kMDItemDisplayName"));
    EXPECT_EQ(name.value, QStringLiteral("*re*"));
    EXPECT_TRUE(name.ignoreCase && name.ignoreDiacritics && !name.wordBased && !name.negated);
    EXPECT_EQ(search.children[2].kind, QueryNode::Kind::Or);
    EXPECT_EQ(search.children[2].children[0].comparison.attribute, QStringLiteral("*"));
    EXPECT_TRUE(search.children[2].children[1].comparison.wordBased);
    const QueryComparison &system = search.children[3].comparison;
    EXPECT_TRUE(system.negated);
    EXPECT_EQ(system.value, QStringLiteral("MDSystemFile"));

    // A raw "file_type" fragment in single quotes, and the exact-name query of link resolution.
    const QueryNode fragment = parsed(QStringLiteral("( kMDItemContentType == 'public.folder' )"));
    EXPECT_EQ(fragment.comparison.value, QStringLiteral("public.folder"));
    const QueryNode exact = parsed(QStringLiteral("( kMDItemFSName == \"Résumé 2014 (final).pdf\" )"));
    EXPECT_EQ(exact.comparison.value, QStringLiteral("Résumé 2014 (final).pdf"));
    EXPECT_FALSE(exact.comparison.ignoreCase);

    // || binds looser than &&; backslashes are plain characters.
    const QueryNode mixed = parsed(QStringLiteral("a == \"1\" || b == \"2\" && c == \"x\\\\\""));
    ASSERT_EQ(mixed.kind, QueryNode::Kind::Or);
    EXPECT_EQ(mixed.children[1].kind, QueryNode::Kind::And);
    EXPECT_EQ(mixed.children[1].children[1].comparison.value, QStringLiteral("x\\\\"));
}

TEST(QueryParser, MalformedQueriesReportWhereTheyBroke)
{
    EXPECT_EQ(errorPosition(QString()), 0);
    EXPECT_EQ(errorPosition(QStringLiteral("kMDItemFSName == \"a\"b\" )")), 20); // name holding a quote
    EXPECT_EQ(errorPosition(QStringLiteral("( kMDItemFSName == \"a\"\" )")), 22);
    EXPECT_EQ(errorPosition(QStringLiteral("( kMDItemFSName == \"abc )")), 19);
    EXPECT_EQ(errorPosition(QStringLiteral("( a == \"x\" ")), 11);
    EXPECT_EQ(errorPosition(QStringLiteral("a == \"x\" )")), 9);
    EXPECT_EQ(errorPosition(QStringLiteral("a = \"x\"")), 2);
    EXPECT_EQ(errorPosition(QStringLiteral("a == \"x\" &&")), 11);
    EXPECT_EQ(errorPosition(QStringLiteral("a == \"x\"cz")), 9);
    EXPECT_EQ(errorPosition(QStringLiteral("== \"x\"")), 0);
    EXPECT_EQ(errorPosition(QStringLiteral("a == \"x\" ; b == \"y\"")), 9);
    EXPECT_GE(errorPosition(QString(100000, u'(')), 0); // deep nesting is refused, not recursed into
}

TEST(Folding, FoldsAccentsLigaturesCaseAndOtherScripts)
{
    EXPECT_EQ(folded(QStringLiteral("Résumé.PDF")), "resume.pdf");
    EXPECT_EQ(folded(QStringLiteral("ZÜRICH")), "zurich");
    EXPECT_EQ(folded(QStringLiteral("ﬁnal Œuvre Straße")), "final oeuvre strasse");
    EXPECT_EQ(folded(QStringLiteral("ＡＢＣ①")), "abc1"); // full-width letters and circled digits
    EXPECT_EQ(folded(QStringLiteral("Ελληνικά")), folded(QStringLiteral("ελληνικα")));
    EXPECT_EQ(folded(QStringLiteral("Москва")), "москва");
    EXPECT_EQ(folded(QStringLiteral("東京")), "東京");
    EXPECT_EQ(folded(QStringLiteral("Å")), folded(QStringLiteral("A\u030A")));

    const std::string text = folded(QStringLiteral("Annual-Report_2014 Tax.Résumé"));
    EXPECT_TRUE(Folding::hasWordWithPrefix(text, "rep"));
    EXPECT_TRUE(Folding::hasWordWithPrefix(text, "resu"));
    EXPECT_FALSE(Folding::hasWordWithPrefix(text, "eport"));
    EXPECT_EQ(Folding::words(text).size(), 5u);
}
