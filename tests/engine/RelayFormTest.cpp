#include "engine/RelayForm.h"

#include "common/Envelope.h"
#include "common/TempHome.h"
#include "engine/vd_Searcher.h"
#include "platform/SettingsKeys.h"
#include "platform/UserDefaults.h"
#include "support/Encodings.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <gtest/gtest.h>
#include <zlib.h>

namespace {

QStringList names(const RelayForm &form)
{
    QStringList list;
    for (const auto &field : form.fields)
        list << field.first;
    return list;
}

} // namespace

TEST(RelayForm, PlainTicksAndResultsGoToResult)
{
    int encryptions = 0;
    const auto encrypt = [&] {
        ++encryptions;
        return QStringLiteral("cipher");
    };
    const QStringList sessions{QStringLiteral("s1"), QStringLiteral("s2")};
    const RelayForm tick = RelayForm::build(std::nullopt, sessions, QStringLiteral("cid"), encrypt);
    EXPECT_EQ(tick.path, QStringLiteral("/result"));
    EXPECT_EQ(names(tick), QStringList({QStringLiteral("computer_id"), QStringLiteral("os_sessions")}));
    EXPECT_EQ(tick.value(QStringLiteral("computer_id")), QStringLiteral("cid"));
    EXPECT_EQ(unpackEnvelope(tick.value(QStringLiteral("os_sessions")).value()).array(),
              QJsonArray({"s1", "s2"}));

    // An unencrypted result goes packed; its cache hints stay inside it and are not form fields.
    const QJsonObject result{{QStringLiteral("request_type"), QStringLiteral("search")},
                             {QStringLiteral("cache_key"), QStringLiteral("abc")},
                             {QStringLiteral("encrypt_reply"), false}};
    const RelayForm plain = RelayForm::build(result, sessions, QStringLiteral("cid"), encrypt);
    EXPECT_EQ(plain.path, QStringLiteral("/result"));
    EXPECT_EQ(names(plain), QStringList({QStringLiteral("result"), QStringLiteral("computer_id"),
                                         QStringLiteral("os_sessions")}));
    EXPECT_EQ(unpackEnvelope(plain.value(QStringLiteral("result")).value()).object(), result);
    EXPECT_EQ(encryptions, 0);
}

TEST(RelayForm, EncryptedResultsCarryOnlyCiphertextAndTheHints)
{
    const auto encrypt = [] { return QStringLiteral("cipher"); };
    const QJsonObject result{{QStringLiteral("encrypt_reply"), true},
                             {QStringLiteral("cache_key"), QStringLiteral("abc")},
                             {QStringLiteral("lifetime"), 3600},
                             {QStringLiteral("secret"), QStringLiteral("never in the clear")}};
    const RelayForm form = RelayForm::build(result, {QStringLiteral("s1")}, QStringLiteral("cid"), encrypt);
    EXPECT_EQ(form.path, QStringLiteral("/result_encrypted"));
    EXPECT_EQ(names(form), QStringList({QStringLiteral("cache_key"), QStringLiteral("lifetime"),
                                        QStringLiteral("result_encrypted"), QStringLiteral("computer_id"),
                                        QStringLiteral("os_sessions")}));
    EXPECT_EQ(form.value(QStringLiteral("cache_key")), QStringLiteral("abc"));
    EXPECT_EQ(form.value(QStringLiteral("lifetime")), QStringLiteral("3600"));
    EXPECT_EQ(form.value(QStringLiteral("result_encrypted")), QStringLiteral("cipher"));
    for (const auto &field : form.fields)
        EXPECT_FALSE(field.second.contains(QStringLiteral("never")));

    // Hints that cannot be form text are left out; the ciphertext still goes.
    const QJsonObject odd{{QStringLiteral("encrypt_reply"), true},
                          {QStringLiteral("cache_key"), QJsonObject{{QStringLiteral("a"), 1}}},
                          {QStringLiteral("lifetime"), QJsonValue()}};
    const RelayForm oddForm = RelayForm::build(odd, {}, QStringLiteral("cid"), encrypt);
    EXPECT_EQ(names(oddForm), QStringList({QStringLiteral("result_encrypted"), QStringLiteral("computer_id"),
                                           QStringLiteral("os_sessions")}));

    EXPECT_EQ(RelayForm::fieldText(2.5), QStringLiteral("2.5"));
    EXPECT_EQ(RelayForm::fieldText(-7), QStringLiteral("-7"));
    EXPECT_EQ(RelayForm::fieldText(true), QStringLiteral("1"));
    EXPECT_EQ(RelayForm::fieldText(QJsonArray({"a", 1, false})), QStringLiteral("a,1,0"));
    EXPECT_EQ(RelayForm::fieldText(QJsonArray({QJsonArray{1}})), std::nullopt);
}

TEST(RelayForm, RequestDeadlineIsSixtySecondsUnlessConfigured)
{
    TempHome home;
    home.setEnvironment("VANDREL_RELAY_URL", "http://127.0.0.1:9//");
    EXPECT_EQ(vd_Searcher::relayBaseURL(), QStringLiteral("http://127.0.0.1:9"));
    EXPECT_EQ(vd_Searcher::relayDeadlineMs(), 60000);
    for (const auto &[text, milliseconds] :
         {std::pair{"2.5", 2500}, {"0", 60000}, {"-3", 60000}, {"soon", 60000}, {"", 60000}}) {
        home.setEnvironment("VANDREL_RELAY_TIMEOUT", text);
        EXPECT_EQ(vd_Searcher::relayDeadlineMs(), milliseconds) << text;
    }
    qunsetenv("VANDREL_RELAY_TIMEOUT");
    UserDefaults::setValue(SettingsKeys::RelayRequestTimeout, 5);
    EXPECT_EQ(vd_Searcher::relayDeadlineMs(), 5000);
}
