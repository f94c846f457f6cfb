#include "support/FSNCategories.h"

#include <QJsonArray>

#include <gtest/gtest.h>

TEST(FSNCategories, UrlEncoding)
{
    const std::pair<QVariant, QString> encoded[] = {
        {QStringLiteral("!*'();:@&=+$,/?%#[]"),
         QStringLiteral("%21%2A%27%28%29%3B%3A%40%26%3D%2B%24%2C%2F%3F%25%23%5B%5D")},
        {QStringLiteral("aZ09-._~"), QStringLiteral("aZ09-._~")},
        {QString::fromUtf8("é\"<"), QStringLiteral("%C3%A9%22%3C")},
        {-42, QStringLiteral("-42")},
        {quint64(18446744073709551615ULL), QStringLiteral("18446744073709551615")},
        {0.1, QStringLiteral("0.1")},
        {true, QStringLiteral("1")},
        // Elements are escaped, commas in them too, but the joining comma is not.
        {QVariantList{QStringLiteral("a,b"), 3, QVariantList{QStringLiteral("c d")}},
         QStringLiteral("a%2Cb,3,c%20d")}};
    for (const auto &[value, text] : encoded)
        EXPECT_EQ(urlEncodedString(value), text) << text.toStdString();

    const QVariantMap parameters{{QStringLiteral("b"), QStringLiteral("x y&z")},
                                 {QStringLiteral("a key"), 5},
                                 {QStringLiteral("bad"), QVariantMap()},
                                 {QStringLiteral("list"), QVariantList{1, 2}}};
    EXPECT_EQ(urlQueryString(parameters), QStringLiteral("a%20key=5&b=x%20y%26z&list=1,2"));
    EXPECT_EQ(urlQueryString({{QStringLiteral("only"), QVariantMap()}}), QString());
}

TEST(FSNCategories, DictionaryFromJSON)
{
    std::optional<FSNError> error;
    const std::optional<QJsonObject> object =
        dictionaryFromJSONWithError(R"({"requests":[{"a":1}]})", &error);
    ASSERT_TRUE(object);
    EXPECT_FALSE(error);
    EXPECT_EQ(object->value(QStringLiteral("requests")).toArray().size(), 1);

    EXPECT_FALSE(dictionaryFromJSONWithError("[1, 2]", &error));
    ASSERT_TRUE(error);
    EXPECT_EQ(error->domain, QStringLiteral("FSNConnectionErrorDomain"));
    EXPECT_EQ(error->code, 1);
    EXPECT_EQ(error->description, QStringLiteral("JSON result is not a dictionary; type: QJsonArray"));
    EXPECT_EQ(error->result.toJsonArray(), (QJsonArray{1, 2}));

    for (const QByteArray &bad :
         {QByteArray(), QByteArray("{\"a\":"), QByteArray("3"), QByteArray("\xff\xfe{}"),
          QByteArray(100000, '[') + QByteArray(100000, ']')}) {
        error.reset();
        EXPECT_FALSE(dictionaryFromJSONWithError(bad, &error)) << bad.left(20).constData();
        ASSERT_TRUE(error);
        EXPECT_EQ(error->domain, FSNJsonErrorDomain);
        EXPECT_NE(error->code, 0);
    }
    EXPECT_FALSE(dictionaryFromJSONWithError("[]"));
}
