#include "metadata/Query.h"

#include "metadata/Folding.h"

#include <gtest/gtest.h>

TEST(QueryParser, PrecedenceQuotingAndWhereMalformedQueriesBroke)
{
    // || binds looser than &&; backslashes are plain characters; quotes may be single; values keep brackets.
    const auto parsed =
        parseQuery(QStringLiteral("a == \"1\" || b == 'public.folder' && c == \"x\\\\ (y).pdf\""));
    ASSERT_TRUE(std::holds_alternative<QueryNode>(parsed));
    const QueryNode &mixed = std::get<QueryNode>(parsed);
    ASSERT_EQ(mixed.kind, QueryNode::Kind::Or);
    ASSERT_EQ(mixed.children[1].kind, QueryNode::Kind::And);
    EXPECT_EQ(mixed.children[1].children[0].comparison.value, QStringLiteral("public.folder"));
    EXPECT_EQ(mixed.children[1].children[1].comparison.value, QStringLiteral("x\\\\ (y).pdf"));

    const std::pair<QString, int> malformed[] = {
        {QString(), 0},
        {QStringLiteral("kMDItemFSName == \"a\"b\" )"), 20}, // a name holding a quote
        {QStringLiteral("( kMDItemFSName == \"a\"\" )"), 22},
        {QStringLiteral("( a == \"x\" "), 11},
        {QStringLiteral("a == \"x\" )"), 9},
        {QStringLiteral("a = \"x\""), 2},
        {QStringLiteral("a == \"x\" &&"), 11},
        {QStringLiteral("a == \"x\"cz"), 9}};
    for (const auto &[text, position] : malformed) {
        const auto result = parseQuery(text);
        ASSERT_TRUE(std::holds_alternative<QueryError>(result)) << text.toStdString();
        EXPECT_EQ(std::get<QueryError>(result).position, position) << text.toStdString();
    }
}

TEST(Folding, FoldsAccentsLigaturesCaseAndOtherScripts)
{
    const auto folded = [](const QString &text) { return Folding::fold(text).toStdString(); };
    EXPECT_EQ(folded(QStringLiteral("Résumé.PDF")), "resume.pdf");
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
