#include "FakeRelay.h"
#include "RelayClient.h"
#include "RelayProcess.h"
#include "common/TempHome.h"
#include "support/ls_Keychain.h"
#include "utils/vd_FileUtils.h"
#include "utils/vd_SimpleUtils.h"

#include <QDir>
#include <QFileInfo>

#include <gtest/gtest.h>

#include <thread>

using namespace std::chrono_literals;

// The whole path a person uses: a real vandrel-relay and a real `vandrel --headless` in a temporary home
// share a plain local folder as their cloud folder; the browser side logs in, opens a session, finds the
// computer, and a search for a word inside a file is answered through the relay.
TEST(RelayEndToEnd, SearchThroughTheRelayWithACloudFolder)
{
    TempHome home;
    const QString cloud = home.filePath(QStringLiteral("Shared"));
    QDir().mkpath(cloud);
    RelayProcess relay({QStringLiteral("--port"), QStringLiteral("0"), QStringLiteral("--state-dir"),
                        home.filePath(QStringLiteral("relay-state")), QStringLiteral("--cloud-folder"),
                        cloud});
    ASSERT_NE(relay.port, 0) << relay.process.readAllStandardError().toStdString();

    qputenv("VANDREL_RELAY_URL", QByteArray("http://127.0.0.1:") + QByteArray::number(relay.port));
    qputenv("VANDREL_CLOUD_FOLDERS", cloud.toUtf8());
    qputenv("VANDREL_KEYCHAIN", "file");
    ls_Keychain::setString(QStringLiteral("pw"), vd_FileUtils::keyForComputerPassword());
    const QString notes = home.writeFile(QStringLiteral("Notes/Minutes.txt"), "the quarterly budget meeting");
    AgentProcess agent(home);

    RelayClient browser(relay.port);
    ASSERT_TRUE(browser.login(relay.token));
    QJsonObject computer;
    for (int attempt = 0; attempt < 300 && computer.isEmpty(); ++attempt) {
        computer = browser.get("/api/computers")
                       .json()
                       .value(QStringLiteral("computers"))
                       .toArray()
                       .first()
                       .toObject();
        if (computer.isEmpty())
            std::this_thread::sleep_for(100ms);
    }
    ASSERT_FALSE(computer.isEmpty()) << agent.log().toStdString();
    EXPECT_TRUE(computer.value(QStringLiteral("pword_required")).toBool());
    const QString computerId = computer.value(QStringLiteral("computer_id")).toString();
    const QString session = browser.openSession();
    const QString sessionFile =
        cloud + QStringLiteral("/Apps/vandrel/data.vdldata/sessions/") + session + QStringLiteral(".json");
    ASSERT_TRUE(QFileInfo::exists(sessionFile));

    const QString hash = vd_SimpleUtils::sha256Hex(computerId + QStringLiteral("___pw"));
    const auto ask = [&](QJsonObject request) {
        browser.post("/api/session/" + session.toStdString() + "/alive", {});
        request.insert(QStringLiteral("os_session"), session);
        request.insert(QStringLiteral("pword_hash"), hash);
        return browser.ask(computerId, request);
    };
    const HttpReply roots = ask({{QStringLiteral("request_type"), QStringLiteral("search")},
                                 {QStringLiteral("search_dir"), QStringLiteral("root_folders")}});
    ASSERT_EQ(roots.status, 200) << roots.body.toStdString() << agent.log().toStdString();
    EXPECT_EQ(roots.json()[QStringLiteral("result")][QStringLiteral("vandrel_folder")].toString(),
              cloud + QStringLiteral("/Apps/vandrel"));

    QStringList found;
    for (int attempt = 0; attempt < 30 && !found.contains(notes); ++attempt) {
        const HttpReply reply = ask({{QStringLiteral("request_type"), QStringLiteral("search")},
                                     {QStringLiteral("search_dir"), home.path()},
                                     {QStringLiteral("search_string"), QStringLiteral("quarterly")}});
        ASSERT_EQ(reply.status, 200) << reply.body.toStdString();
        found.clear();
        for (const QJsonValue &item :
             reply.json()[QStringLiteral("result")][QStringLiteral("items")].toArray())
            found << item[QStringLiteral("path")].toString();
        if (!found.contains(notes))
            std::this_thread::sleep_for(500ms);
    }
    EXPECT_TRUE(found.contains(notes)) << found.join(u',').toStdString();

    // A wrong password is answered for searches only, as an error.
    QJsonObject wrong{{QStringLiteral("request_type"), QStringLiteral("search")},
                      {QStringLiteral("search_dir"), home.path()},
                      {QStringLiteral("os_session"), session},
                      {QStringLiteral("pword_hash"), QStringLiteral("0000")}};
    const HttpReply refused = browser.ask(computerId, wrong);
    EXPECT_EQ(refused.json()[QStringLiteral("result")][QStringLiteral("auth_error")].toString(),
              QStringLiteral("auth_pword_failed"));

    EXPECT_EQ(browser.post("/api/session/" + session.toStdString() + "/close", {}).status, 200);
    EXPECT_FALSE(QFileInfo::exists(sessionFile));
    agent.stop(SIGTERM);
    qunsetenv("VANDREL_RELAY_URL");
    qunsetenv("VANDREL_CLOUD_FOLDERS");
    qunsetenv("VANDREL_KEYCHAIN");
}
