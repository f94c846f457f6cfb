#include "RunningRelay.h"
#include "common/LogCapture.h"
#include "links/qlk_Schema.h"
#include "support/Encodings.h"

#include <QDate>
#include <QDateTime>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QJsonDocument>
#include <QTest>

#include <gtest/gtest.h>

using namespace std::chrono_literals;
namespace http = boost::beast::http;

namespace {

void writeFile(const QString &path, const QByteArray &content)
{
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(content);
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

double dateIn(const QString &path)
{
    return QJsonDocument::fromJson(readFile(path)).object().value(QStringLiteral("date")).toDouble();
}

} // namespace

TEST(RelayBrowser, LoginIsRequiredAndCookieIsGuarded)
{
    RunningRelay relay;
    RelayClient stranger(relay.port());
    for (const auto &[method, target] :
         std::vector<std::pair<http::verb, std::string>>{{http::verb::get, "/api/computers"},
                                                         {http::verb::post, "/api/session"},
                                                         {http::verb::post, "/api/request"},
                                                         {http::verb::get, "/api/download?cloud=0&path=a"},
                                                         {http::verb::post, "/api/upload?cloud=0&name=a"},
                                                         {http::verb::post, "/api/logout"}}) {
        const HttpReply reply = stranger.request(method, target, "{}");
        EXPECT_EQ(reply.status, 401) << target;
        EXPECT_EQ(reply.json().value(QStringLiteral("error")).toString(), QStringLiteral("login_required"))
            << target;
    }
    EXPECT_FALSE(QFileInfo::exists(relay.storageRoot() + QStringLiteral("/uploads"))) << "nothing is written";

    EXPECT_FALSE(stranger.login("relay-test-token-0123456789abcdefghijklmnoX"));
    EXPECT_EQ(stranger.post("/api/login", {{QStringLiteral("token"), 42}}).status, 400);
    stranger.cookie = "made-up";
    EXPECT_EQ(stranger.get("/api/computers").status, 401);

    RelayClient browser(relay.port());
    const HttpReply login =
        browser.post("/api/login", {{QStringLiteral("token"), QString::fromLatin1(relay.token())}});
    ASSERT_EQ(login.status, 200);
    const QByteArray cookie = login.header("set-cookie");
    EXPECT_TRUE(cookie.contains("HttpOnly") && cookie.contains("SameSite=Strict") &&
                cookie.contains("Path=/"))
        << cookie.toStdString();
    ASSERT_TRUE(browser.login(relay.token()));
    EXPECT_EQ(browser.get("/api/computers").status, 200);

    // A page of another site cannot make the browser act with the cookie.
    const HttpReply crossSite = browser.request(http::verb::post, "/api/session", "{}", "application/json",
                                                {{"Origin", "http://evil.example"}});
    EXPECT_EQ(crossSite.status, 403);
    const HttpReply sameSite =
        browser.request(http::verb::post, "/api/session", "{}", "application/json",
                        {{"Origin", "http://127.0.0.1:" + std::to_string(relay.port())}});
    EXPECT_EQ(sameSite.status, 200);

    EXPECT_EQ(browser.post("/api/logout", {}).status, 200);
    EXPECT_EQ(browser.get("/api/computers").status, 401);
}

TEST(RelayBrowser, SessionFilesAndMarkerFollowThePage)
{
    RunningRelay relay;
    auto browser = relay.browser();
    auto other = relay.browser();
    const QString sessions = relay.storageRoot() + QStringLiteral("/data.vdldata/sessions/");
    const QString marker = relay.storageRoot() + QStringLiteral("/data.vdldata/sessions_are_here.json");
    EXPECT_NEAR(dateIn(marker), QDateTime::currentSecsSinceEpoch(), 30) << "the marker is written at start";

    const QString kept = browser->openSession();
    ASSERT_GE(kept.size(), 20);
    const QString file = sessions + kept + QStringLiteral(".json");
    ASSERT_TRUE(QFileInfo::exists(file));
    const double first = dateIn(file);
    EXPECT_NEAR(first, QDateTime::currentSecsSinceEpoch(), 30);

    // Kept alive by its own login only; another login cannot touch it.
    EXPECT_EQ(other->post("/api/session/" + kept.toStdString() + "/alive", {}).status, 404);
    EXPECT_EQ(other->post("/api/session/" + kept.toStdString() + "/close", {}).status, 404);
    EXPECT_EQ(other->post("/api/session/../../x/alive", {}).status, 404);
    for (int i = 0; i < 4; ++i) {
        QTest::qWait(500);
        EXPECT_EQ(browser->post("/api/session/" + kept.toStdString() + "/alive", {}).status, 200);
    }
    EXPECT_TRUE(QFileInfo::exists(file)) << "a session that says alive outlives the stale limit";
    EXPECT_GT(dateIn(file), first);

    EXPECT_EQ(browser->post("/api/session/" + kept.toStdString() + "/close", {}).status, 200);
    EXPECT_FALSE(QFileInfo::exists(file)) << "closing deletes at once";

    // A page that goes quiet loses its session file within seconds.
    const QString quiet = browser->openSession();
    EXPECT_TRUE(QFileInfo::exists(sessions + quiet + QStringLiteral(".json")));
    EXPECT_TRUE(QTest::qWaitFor(
        [&] { return !QFileInfo::exists(sessions + quiet + QStringLiteral(".json")); }, 15000));
    EXPECT_EQ(browser->post("/api/session/" + quiet.toStdString() + "/alive", {}).status, 404);

    // Logging out closes the login's sessions.
    const QString third = other->openSession();
    EXPECT_EQ(other->post("/api/logout", {}).status, 200);
    EXPECT_FALSE(QFileInfo::exists(sessions + third + QStringLiteral(".json")));
}

TEST(RelayBrowser, ComputersFromInfoFiles)
{
    RunningRelay relay([](RelayConfig &config) {
        config.cloudFolders.append(QDir::tempPath() + QStringLiteral("/does-not-exist-vandrel-relay"));
    });
    const QString computers = relay.storageRoot() + QStringLiteral("/data.vdldata/computers/");
    writeFile(
        computers + QStringLiteral("aaaa.json"),
        R"({"computer_id":"aaaa","computer_name":"Desk","last_updated":100,"pword_required":true,"app_version":"1.0"})");
    writeFile(computers + QStringLiteral("bbbb.json"),
              R"({"computer_id":"bbbb","computer_name":"Server","last_updated":200})");
    writeFile(computers + QStringLiteral("aaaa-old.json"),
              R"({"computer_id":"aaaa","computer_name":"Old","last_updated":50})");
    writeFile(computers + QStringLiteral("broken.json"), "{not json");
    writeFile(computers + QStringLiteral("array.json"), "[1,2]");
    writeFile(computers + QString(60, u'c') + QStringLiteral(".json"),
              R"({"computer_id":"conflicted","last_updated":999})");
    auto browser = relay.browser();
    const HttpReply reply = browser->get("/api/computers");
    ASSERT_EQ(reply.status, 200);
    const QJsonArray list = reply.json().value(QStringLiteral("computers")).toArray();
    ASSERT_EQ(list.size(), 2) << reply.body.toStdString();
    EXPECT_EQ(list[0][QStringLiteral("computer_id")].toString(), QStringLiteral("bbbb"));
    EXPECT_EQ(list[0][QStringLiteral("pword_required")].toBool(), false);
    EXPECT_EQ(list[1][QStringLiteral("computer_name")].toString(), QStringLiteral("Desk"));
    EXPECT_EQ(list[1][QStringLiteral("pword_required")].toBool(), true);
    EXPECT_EQ(list[1][QStringLiteral("date")].toDouble(), 100.0);
    EXPECT_EQ(list[1][QStringLiteral("cloud")].toInt(), 0);
    EXPECT_EQ(list[1][QStringLiteral("storage_root_name")].toString(), QStringLiteral("cloud"));
}

TEST(RelayBrowser, DownloadsStayInsideTheStorageRoot)
{
    RunningRelay relay;
    auto browser = relay.browser();
    QByteArray big(5 << 20, 'v');
    big.replace(0, 5, "start");
    writeFile(relay.storageRoot() + QStringLiteral("/uploads/2026/11/résumé \"big\".bin"), big);
    writeFile(relay.path(QStringLiteral("outside/secret.txt")), "secret");
    QFile::link(relay.path(QStringLiteral("outside/secret.txt")),
                relay.storageRoot() + QStringLiteral("/link.txt"));
    QFile::link(relay.path(QStringLiteral("outside")), relay.storageRoot() + QStringLiteral("/linkdir"));
    writeFile(relay.storageRoot() + QStringLiteral("/inside.txt"), "inside");
    QFile::link(relay.storageRoot() + QStringLiteral("/inside.txt"),
                relay.storageRoot() + QStringLiteral("/alias.txt"));

    const HttpReply ok = browser->get(
        "/api/download?cloud=0&path=" +
        QUrl::toPercentEncoding(QStringLiteral("uploads/2026/11/résumé \"big\".bin")).toStdString());
    ASSERT_EQ(ok.status, 200);
    EXPECT_EQ(ok.body, big);
    EXPECT_TRUE(ok.header("content-disposition").startsWith("attachment;"));
    EXPECT_TRUE(ok.header("content-disposition").contains("UTF-8''r%C3%A9sum%C3%A9%20%22big%22.bin"));
    EXPECT_EQ(browser->get("/api/download?cloud=0&path=alias.txt").body, QByteArray("inside"));

    const std::string outsidePath = relay.path(QStringLiteral("outside/secret.txt")).toStdString();
    for (const std::string &bad :
         std::vector<std::string>{"../outside/secret.txt", "link.txt", "linkdir/secret.txt", outsidePath,
                                  "uploads/../../outside/secret.txt", "uploads", "", "nothing.txt",
                                  "uploads//2026/11/x", "./inside.txt"}) {
        const HttpReply reply =
            browser->get("/api/download?cloud=0&path=" +
                         QUrl::toPercentEncoding(QString::fromStdString(bad)).toStdString());
        EXPECT_EQ(reply.status, 404) << bad;
        EXPECT_FALSE(reply.body.contains("secret")) << bad;
    }
    for (const char *bad : {"/api/download?cloud=1&path=inside.txt", "/api/download?cloud=-1&path=inside.txt",
                            "/api/download?cloud=x&path=inside.txt", "/api/download"}) {
        const HttpReply reply = browser->get(bad);
        EXPECT_EQ(reply.status, 400) << bad;
        EXPECT_FALSE(reply.json().value(QStringLiteral("message")).toString().isEmpty());
    }
}

TEST(RelayBrowser, UploadsNeverOverwriteNorLeaveTheStorageRoot)
{
    RunningRelay relay([](RelayConfig &config) { config.uploadLimit = 4 << 20; });
    auto browser = relay.browser();
    const QDate today = QDate::currentDate();
    const QString month = QStringLiteral("uploads/%1/%2/").arg(today.year()).arg(today.month());

    QByteArray content(3 << 20, 'u');
    const HttpReply first = browser->request(http::verb::post, "/api/upload?cloud=0&name=photo%20one.jpg",
                                             content, "application/octet-stream");
    ASSERT_EQ(first.status, 200) << first.body.toStdString();
    EXPECT_EQ(first.json().value(QStringLiteral("relative_path")).toString(),
              month + QStringLiteral("photo one.jpg"));
    const HttpReply second = browser->request(http::verb::post, "/api/upload?cloud=0&name=photo%20one.jpg",
                                              "two", "application/octet-stream");
    ASSERT_EQ(second.status, 200);
    EXPECT_EQ(second.json().value(QStringLiteral("relative_path")).toString(),
              month + QStringLiteral("photo one (2).jpg"));
    EXPECT_EQ(readFile(relay.storageRoot() + u'/' + month + QStringLiteral("photo one.jpg")), content);
    EXPECT_EQ(readFile(relay.storageRoot() + u'/' + month + QStringLiteral("photo one (2).jpg")),
              QByteArray("two"));

    for (const std::string name : {"..", "a%2Fb", "", "%2E%2E%2Foutside", "x%00y", "new%0Aline"}) {
        const HttpReply reply = browser->request(http::verb::post, "/api/upload?cloud=0&name=" + name, "data",
                                                 "application/octet-stream");
        EXPECT_EQ(reply.status, 400) << name;
    }
    const HttpReply tooBig = browser->request(http::verb::post, "/api/upload?cloud=0&name=big.bin",
                                              QByteArray(5 << 20, 'b'), "application/octet-stream");
    EXPECT_EQ(tooBig.status, 413);
    const QStringList left = QDir(relay.storageRoot() + u'/' + month).entryList(QDir::Files | QDir::Hidden);
    EXPECT_EQ(left, (QStringList{QStringLiteral("photo one (2).jpg"), QStringLiteral("photo one.jpg")}))
        << "refused and cut-off uploads leave nothing behind";

    // An uploads folder that the synced folder turned into a link out is not written through.
    QDir(relay.storageRoot()).removeRecursively();
    QDir().mkpath(relay.storageRoot());
    QDir().mkpath(relay.path(QStringLiteral("elsewhere")));
    QFile::link(relay.path(QStringLiteral("elsewhere")), relay.storageRoot() + QStringLiteral("/uploads"));
    const HttpReply redirected = browser->request(http::verb::post, "/api/upload?cloud=0&name=x.txt", "data",
                                                  "application/octet-stream");
    EXPECT_EQ(redirected.status, 500);
    EXPECT_EQ(redirected.json().value(QStringLiteral("error")).toString(), QStringLiteral("storage_error"));
    QDirIterator it(relay.path(QStringLiteral("elsewhere")), QDir::Files | QDir::Hidden,
                    QDirIterator::Subdirectories);
    EXPECT_FALSE(it.hasNext()) << "nothing was written outside the StorageRoot";
}

TEST(RelayBrowser, BadInputGetsAClearErrorAndTheRelayCarriesOn)
{
    RunningRelay relay([](RelayConfig &config) { config.readTimeout = std::chrono::seconds(3); });
    auto browser = relay.browser();
    RelayClient agent(relay.port());

    const auto error = [](const HttpReply &reply) {
        return reply.json().value(QStringLiteral("error")).toString();
    };
    for (const QByteArray &body :
         {QByteArray("not json"), QByteArray("[1]"), QByteArray("{\"computer_id\":5,\"request\":{}}"),
          QByteArray("{\"computer_id\":\"\",\"request\":{}}"),
          QByteArray("{\"computer_id\":\"c\",\"request\":[]}"),
          "{\"computer_id\":\"" + QByteArray(300, 'c') + "\",\"request\":{}}"}) {
        const HttpReply reply = browser->request(http::verb::post, "/api/request", body);
        EXPECT_EQ(reply.status, 400) << body.toStdString();
        EXPECT_FALSE(reply.json().value(QStringLiteral("message")).toString().isEmpty());
    }

    const auto agentPost = [&](const QByteArray &form) {
        return agent.request(http::verb::post, "/result", form, "application/x-www-form-urlencoded");
    };
    EXPECT_EQ(error(agentPost("os_sessions=x")), QStringLiteral("bad_computer_id"));
    EXPECT_EQ(error(agentPost("computer_id=c&os_sessions=%25%25%25")), QStringLiteral("bad_sessions"));
    EXPECT_EQ(error(agentPost("computer_id=c&result=bm90IHpsaWI=")), QStringLiteral("bad_result"));
    EXPECT_EQ(error(agentPost("computer_id=c&result=" + packEnvelope(QJsonDocument(QJsonArray{1})))),
              QStringLiteral("bad_result"));
    EXPECT_EQ(error(agentPost("computer_id=c&result_encrypted=%3Cscript%3E")), QStringLiteral("bad_result"));
    // 300 MB of zeros packed into a few hundred kilobytes: refused without inflating it all.
    QByteArray zeros(300 << 20, ' ');
    zeros[0] = '[';
    zeros[zeros.size() - 1] = ']';
    const QByteArray bomb = "computer_id=c&result=" +
                            base64Encoding_URL_SAFE(zlibDeflate(zeros).value_or(QByteArray())).toLatin1();
    zeros.clear();
    EXPECT_EQ(error(agentPost(bomb)), QStringLiteral("bad_result"));
    EXPECT_EQ(agent.get("/result").status, 405);
    EXPECT_EQ(agent
                  .request(http::verb::post, "/result", QByteArray(40 << 20, 'x'),
                           "application/x-www-form-urlencoded")
                  .status,
              413);

    EXPECT_TRUE(relay.browser()->get("/api/nothing").status == 404);
    const QByteArray garbage = agent.raw("GARBAGE\r\n\r\n");
    EXPECT_TRUE(garbage.startsWith("HTTP/1.1 400")) << garbage.toStdString();
    const QByteArray hugeHead =
        agent.raw("GET / HTTP/1.1\r\nX-Long: " + QByteArray(64 * 1024, 'h') + "\r\n\r\n");
    EXPECT_TRUE(hugeHead.startsWith("HTTP/1.1 431")) << hugeHead.left(100).toStdString();
    // A client that promises a body and stalls is cut off after the read time-out, not waited for forever.
    const auto stallStart = std::chrono::steady_clock::now();
    const QByteArray stalled =
        agent.raw("POST /api/login HTTP/1.1\r\nHost: x\r\nContent-Length: 100\r\n\r\n{}");
    EXPECT_TRUE(stalled.isEmpty());
    EXPECT_LT(std::chrono::steady_clock::now() - stallStart, 60s);

    // The static pages: the page and nothing outside its folder.
    const HttpReply page = agent.get("/");
    EXPECT_EQ(page.status, 200);
    EXPECT_TRUE(page.body.contains("placeholder page"));
    EXPECT_EQ(page.header("content-type"), QByteArray("text/html; charset=utf-8"));
    EXPECT_EQ(agent.get("/../state/access_token").status, 404);
    EXPECT_EQ(agent.get("/%2E%2E/state/access_token").status, 404);

    // After all that, the relay still serves a normal exchange.
    EXPECT_EQ(RelayClient::requests(agent.poll(QStringLiteral("c"))).size(), 0);
    EXPECT_EQ(browser->get("/api/computers").status, 200);
}

TEST(RelayBrowser, LinkPageShowsWhatALinkDescribesEscapedAndWithoutLogin)
{
    RunningRelay relay;
    RelayClient stranger(relay.port());
    const QString base = QStringLiteral("http://127.0.0.1:%1/l").arg(relay.port());
    const QString name = QStringLiteral("a \"q\" <img src=x onerror=alert(1)> é 🙂 txt\u202Eexe.txt");
    writeFile(relay.path(QStringLiteral("Docs & <b>/Sub/") + name), QByteArray(1234, 'x'));
    const std::optional<QUrl> link =
        qlk_Schema::qlkURLFor(relay.path(QStringLiteral("Docs & <b>/Sub/")) + name, base);
    ASSERT_TRUE(link);
    const HttpReply page = stranger.get(link->path(QUrl::FullyEncoded).toStdString());
    ASSERT_EQ(page.status, 200) << page.body.toStdString();
    EXPECT_TRUE(page.header("content-security-policy").startsWith("default-src 'none'"));
    EXPECT_FALSE(page.body.contains("<img") || page.body.contains("<b>") || page.body.contains("\"q\""));
    EXPECT_TRUE(page.body.contains("&lt;img src=x onerror=alert(1)&gt; é 🙂 txt\uFFFDexe.txt"));
    EXPECT_TRUE(page.body.contains("A file of 1.2 kB (1,234 bytes)"));
    EXPECT_TRUE(page.body.contains("<li>Docs &amp; &lt;b&gt;</li><li>Sub</li>"));
    const QUrl scheme = *qlk_Schema::schemeUrlForServiceLink(*link, base);
    EXPECT_TRUE(
        page.body.contains("href=\"" + scheme.toString(QUrl::FullyEncoded).toHtmlEscaped().toUtf8() + '"'));
    EXPECT_EQ(qlk_Schema::parseQlkUrl(scheme)->fileName, name);

    const HttpReply folderPage = stranger.get("/l/f/2/FOLDER/a/b/c/Folder?utm=x");
    EXPECT_TRUE(folderPage.body.contains("A folder with 2 items")) << folderPage.body.toStdString();
    EXPECT_TRUE(stranger.get("/l/p/5/crc///top.txt")
                    .body.contains("<ol id=\"folders\" class=\"folders\"><li>/</li></ol>"));

    const HttpReply longName = stranger.get("/l/p/1/2/3/4/" + std::string(9000, 'n') + "%3Cscript%3E");
    EXPECT_EQ(longName.status, 200);
    EXPECT_TRUE(longName.body.contains("nnn&lt;script&gt;") && !longName.body.contains("<script>"));
    for (const char *bad :
         {"/l/", "/l/p", "/l/p/1/crc/name", "/l/p/1/%ZZ/a/b/c", "/l/1x/2/3/4/5/6", "/l/%0A/1/2/a/b"}) {
        const HttpReply reply = stranger.get(bad);
        EXPECT_EQ(reply.status, 400) << bad;
        EXPECT_TRUE(reply.body.contains("Not a file link")) << bad;
    }
}

TEST(RelayBrowser, SessionFilesNeverFollowALinkPlantedInTheCloudFolder)
{
    const LogCapture log;
    const QString data = QStringLiteral("Apps/vandrel/data.vdldata");
    for (const auto &[planted, kind] : std::vector<std::pair<QString, QString>>{
             {QStringLiteral("Apps"), QStringLiteral("Apps folder")},
             {QStringLiteral("Apps/vandrel"), QStringLiteral("StorageRoot folder")},
             {data, QStringLiteral("data folder")},
             {data + QStringLiteral("/sessions"), QStringLiteral("sessions folder")},
             {data + QStringLiteral("/sessions_are_here.json"), QStringLiteral("marker file")},
             {QString(), QStringLiteral("session file")}}) {
        LogCapture::lines.clear();
        QTemporaryDir outside;
        writeFile(outside.filePath(QStringLiteral("victim.json")), "victim");
        const QString target =
            planted.endsWith(u".json") ? outside.filePath(QStringLiteral("victim.json")) : outside.path();
        RunningRelay relay([&](RelayConfig &config) {
            if (planted.isEmpty())
                return;
            QDir().mkpath(QFileInfo(config.cloudFolders.first() + u'/' + planted).path());
            ASSERT_TRUE(QFile::link(target, config.cloudFolders.first() + u'/' + planted));
        });
        auto browser = relay.browser();
        const QString id = browser->openSession();
        const QString sessionFile = relay.storageRoot() + QStringLiteral("/data.vdldata/sessions/%1.json");
        if (planted.isEmpty()) {
            ASSERT_TRUE(QFile::remove(sessionFile.arg(id)) && QFile::link(target, sessionFile.arg(id)));
        }
        EXPECT_EQ(browser->post("/api/session/" + id.toStdString() + "/alive", {}).status, 200);
        EXPECT_EQ(browser->post("/api/session/" + id.toStdString() + "/close", {}).status, 200);
        relay.stop();
        EXPECT_EQ(QDir(outside.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
                  QStringList{QStringLiteral("victim.json")})
            << kind.toStdString();
        EXPECT_EQ(readFile(outside.filePath(QStringLiteral("victim.json"))), QByteArray("victim"));
        EXPECT_EQ(
            LogCapture::lines.filter(QStringLiteral("symbolic link stands in place of the ") + kind).size(),
            1)
            << kind.toStdString();
        EXPECT_TRUE(LogCapture::lines.filter(outside.path()).isEmpty());
    }
}
