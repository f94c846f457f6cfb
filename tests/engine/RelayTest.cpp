#include "common/DropboxHome.h"
#include "common/Envelope.h"
#include "common/JsonRecord.h"
#include "common/LogCapture.h"
#include "common/TestHttpServer.h"
#include "engine/RelayAddress.h"
#include "engine/RelayForm.h"
#include "engine/vd_Searcher.h"
#include "platform/SettingsKeys.h"
#include "platform/UserDefaults.h"

#include <QJsonArray>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace {

QStringList names(const RelayForm &form)
{
    QStringList list;
    for (const auto &field : form.fields)
        list << field.first;
    return list;
}

} // namespace

TEST(RelayAddress, PlainHttpOnlyToThisMachineAndTheAgentPollsNothingElse)
{
    for (const char *allowed : {"https://relay.example.org", "http://127.0.0.1:8780", "http://127.3.4.5",
                                "HTTP://LOCALHOST:1", "http://[::1]:8780/"})
        EXPECT_TRUE(isAllowedRelayAddress(QString::fromLatin1(allowed))) << allowed;
    for (const char *refused :
         {"http://relay.example.org", "http://10.0.0.5:8780", "http://127.0.0.1.example.org",
          "http://localhost.example.org", "http://[::ffff:10.0.0.1]", "http://0.0.0.0:8780",
          "ftp://127.0.0.1", "file:///tmp/x", "127.0.0.1:8780", "http://", ""})
        EXPECT_FALSE(isAllowedRelayAddress(QString::fromLatin1(refused))) << refused;

    // An agent given a plain-http address off this machine says so and sends nothing; on loopback it polls.
    DropboxHome home;
    home.addSession(u"page"_s);
    TestHttpServer relay;
    {
        LogCapture log;
        // A documentation address: refused before any connection is tried.
        home.setEnvironment("VANDREL_RELAY_URL", "http://192.0.2.10:8780");
        vd_Searcher::postResultAndGetMoreRequests(std::nullopt, home.root(), std::nullopt);
        EXPECT_EQ(log.lines.filter(u"refused"_s).filter(u"https"_s).size(), 1)
            << log.lines.join(u'\n').toStdString();
    }
    home.setEnvironment("VANDREL_RELAY_URL", relay.url().toString().toUtf8());
    vd_Searcher::postResultAndGetMoreRequests(std::nullopt, home.root(), std::nullopt);
    EXPECT_TRUE(relay.waitForRequests(1));
    EXPECT_EQ(relay.requests().value(0).path, QByteArray("/result"));
}

TEST(RelayForm, TicksAndPlainResultsGoPackedEncryptedResultsOnlyAsCiphertextAndHints)
{
    int encryptions = 0;
    const auto encrypt = [&] {
        ++encryptions;
        return u"cipher"_s;
    };
    const QStringList sessions{u"s1"_s, u"s2"_s};
    const RelayForm tick = RelayForm::build(std::nullopt, sessions, u"cid"_s, encrypt);
    EXPECT_EQ(tick.path, u"/result"_s);
    EXPECT_EQ(names(tick), QStringList({u"computer_id"_s, u"os_sessions"_s}));
    EXPECT_EQ(tick.value(u"computer_id"_s), u"cid"_s);
    EXPECT_EQ(unpackEnvelope(tick.value(u"os_sessions"_s).value()).array(), QJsonArray({"s1", "s2"}));

    // An unencrypted result goes packed; its cache hints stay inside it and are not form fields.
    const QJsonObject result =
        record({{"request_type", "search"}, {"cache_key", "abc"}, {"encrypt_reply", false}});
    const RelayForm plain = RelayForm::build(result, sessions, u"cid"_s, encrypt);
    EXPECT_EQ(names(plain), QStringList({u"result"_s, u"computer_id"_s, u"os_sessions"_s}));
    EXPECT_EQ(unpackEnvelope(plain.value(u"result"_s).value()).object(), result);
    EXPECT_EQ(encryptions, 0);

    const QJsonObject sealed = record({{"encrypt_reply", true},
                                       {"cache_key", "abc"},
                                       {"lifetime", 3600},
                                       {"secret", "never in the clear"}});
    const RelayForm form = RelayForm::build(sealed, {u"s1"_s}, u"cid"_s, encrypt);
    EXPECT_EQ(form.path, u"/result_encrypted"_s);
    EXPECT_EQ(names(form), QStringList({u"cache_key"_s, u"lifetime"_s, u"result_encrypted"_s,
                                        u"computer_id"_s, u"os_sessions"_s}));
    EXPECT_EQ(form.value(u"cache_key"_s), u"abc"_s);
    EXPECT_EQ(form.value(u"lifetime"_s), u"3600"_s);
    EXPECT_EQ(form.value(u"result_encrypted"_s), u"cipher"_s);
    for (const auto &field : form.fields)
        EXPECT_FALSE(field.second.contains(u"never"_s));

    // Hints that cannot be form text are left out; the ciphertext still goes.
    const QJsonObject odd = record(
        {{"encrypt_reply", true}, {"cache_key", QJsonObject{{u"a"_s, 1}}}, {"lifetime", QJsonValue()}});
    EXPECT_EQ(names(RelayForm::build(odd, {}, u"cid"_s, encrypt)),
              QStringList({u"result_encrypted"_s, u"computer_id"_s, u"os_sessions"_s}));
    EXPECT_EQ(RelayForm::fieldText(2.5), u"2.5"_s);
    EXPECT_EQ(RelayForm::fieldText(true), u"1"_s);
    EXPECT_EQ(RelayForm::fieldText(QJsonArray({"a", 1, false})), u"a,1,0"_s);
    EXPECT_EQ(RelayForm::fieldText(QJsonArray({QJsonArray{1}})), std::nullopt);
}

TEST(RelayForm, RequestDeadlineIsSixtySecondsUnlessConfigured)
{
    TempHome home;
    home.setEnvironment("VANDREL_RELAY_URL", "http://127.0.0.1:9//");
    EXPECT_EQ(vd_Searcher::relayBaseURL(), u"http://127.0.0.1:9"_s);
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
