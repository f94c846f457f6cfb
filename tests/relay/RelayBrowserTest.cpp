#include "RunningRelay.h"
#include "common/LogCapture.h"
#include "common/TempHome.h"
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

using namespace Qt::StringLiterals;
using namespace std::chrono_literals;

namespace {

double dateIn(const QString &path)
{
    return QJsonDocument::fromJson(readFile(path)).object().value(u"date"_s).toDouble();
}

} // namespace

TEST(RelayBrowser, LoginIsRequiredAndCookieIsGuarded)
{
    RunningRelay relay;
    RelayClient stranger(relay.port());
    for (const auto &[method, target] :
         std::vector<std::pair<const char *, std::string>>{{"GET", "/api/computers"},
                                                           {"POST", "/api/session"},
                                                           {"POST", "/api/request"},
                                                           {"GET", "/api/download?cloud=0&path=a"},
                                                           {"POST", "/api/upload?cloud=0&name=a"},
                                                           {"POST", "/api/logout"}}) {
        const HttpReply reply = stranger.request(method, target, "{}");
        EXPECT_EQ(reply.status, 401) << target;
        EXPECT_EQ(reply.error(), u"login_required"_s) << target;
    }
    EXPECT_FALSE(QFileInfo::exists(relay.storageRoot() + u"/uploads"_s)) << "nothing is written";

    EXPECT_EQ(stranger.login("relay-test-token-0123456789abcdefghijklmnoX").error(), u"bad_token"_s);
    EXPECT_EQ(stranger.post("/api/login", {{u"token"_s, 42}}).status, 400);
    stranger.cookie = "made-up";
    EXPECT_EQ(stranger.get("/api/computers").status, 401);

    RelayClient browser(relay.port());
    const QByteArray cookie = browser.login(relay.token()).headers.value("set-cookie");
    EXPECT_TRUE(cookie.contains("HttpOnly") && cookie.contains("SameSite=Strict") &&
                cookie.contains("Path=/"))
        << cookie.toStdString();

    // A page of another site cannot make the browser act with the cookie.
    for (const auto &[origin, status] : std::vector<std::pair<QByteArray, int>>{
             {"http://evil.example", 403}, {"http://127.0.0.1:" + QByteArray::number(relay.port()), 200}}) {
        const HttpReply reply =
            browser.request("POST", "/api/session", "{}", "application/json", "Origin: " + origin + "\r\n");
        EXPECT_EQ(reply.status, status) << origin.toStdString();
    }

    EXPECT_EQ(browser.post("/api/logout", {}).status, 200);
    EXPECT_EQ(browser.get("/api/computers").status, 401);
}

TEST(RelayBrowser, SessionFilesAndMarkerFollowThePage)
{
    RunningRelay relay;
    auto browser = relay.browser();
    auto other = relay.browser();
    const auto fileOf = [&](const QString &id) {
        return relay.storageRoot() + u"/data.vdldata/sessions/"_s + id + u".json"_s;
    };
    const auto act = [](RelayClient &client, const QString &id, const std::string &what) {
        return client.post("/api/session/" + id.toStdString() + '/' + what, {}).status;
    };
    const QString marker = relay.storageRoot() + u"/data.vdldata/sessions_are_here.json"_s;
    EXPECT_NEAR(dateIn(marker), QDateTime::currentSecsSinceEpoch(), 30) << "the marker is written at start";

    const QString kept = browser->openSession();
    ASSERT_GE(kept.size(), 20);
    ASSERT_TRUE(QFileInfo::exists(fileOf(kept)));
    const double first = dateIn(fileOf(kept));
    EXPECT_NEAR(first, QDateTime::currentSecsSinceEpoch(), 30);

    // Kept alive by its own login only; another login cannot touch it.
    EXPECT_EQ(act(*other, kept, "alive"), 404);
    EXPECT_EQ(act(*other, kept, "close"), 404);
    EXPECT_EQ(act(*other, u"../../x"_s, "alive"), 404);
    for (int i = 0; i < 4; ++i) {
        QTest::qWait(500);
        EXPECT_EQ(act(*browser, kept, "alive"), 200);
    }
    EXPECT_TRUE(QFileInfo::exists(fileOf(kept))) << "a session that says alive outlives the stale limit";
    EXPECT_GT(dateIn(fileOf(kept)), first);
    EXPECT_EQ(act(*browser, kept, "close"), 200);
    EXPECT_FALSE(QFileInfo::exists(fileOf(kept))) << "closing deletes at once";

    const QString quiet = browser->openSession();
    EXPECT_TRUE(QTest::qWaitFor([&] { return !QFileInfo::exists(fileOf(quiet)); }, 15000));
    EXPECT_EQ(act(*browser, quiet, "alive"), 404);

    const QString third = other->openSession();
    EXPECT_EQ(other->post("/api/logout", {}).status, 200);
    EXPECT_FALSE(QFileInfo::exists(fileOf(third)));
}

TEST(RelayBrowser, ComputersFromInfoFiles)
{
    RunningRelay relay([](RelayConfig &config) {
        config.cloudFolders.append(QDir::tempPath() + u"/does-not-exist-vandrel-relay"_s);
    });
    // The newest file of each computer counts; unreadable ones and sync conflicts' long names do not.
    for (const auto &[name, content] : std::vector<std::pair<QString, QByteArray>>{
             {u"aaaa.json"_s, R"({"computer_id":"aaaa","computer_name":"Desk","last_updated":100,)"
                              R"("pword_required":true,"app_version":"1.0"})"},
             {u"bbbb.json"_s, R"({"computer_id":"bbbb","computer_name":"Server","last_updated":200})"},
             {u"aaaa-old.json"_s, R"({"computer_id":"aaaa","computer_name":"Old","last_updated":50})"},
             {u"broken.json"_s, "{not json"},
             {u"array.json"_s, "[1,2]"},
             {QString(60, u'c') + u".json"_s, R"({"computer_id":"conflicted","last_updated":999})"}})
        writeFile(relay.storageRoot() + u"/data.vdldata/computers/"_s + name, content);
    const HttpReply reply = relay.browser()->get("/api/computers");
    ASSERT_EQ(reply.status, 200);
    const QJsonArray expected =
        QJsonDocument::fromJson(
            R"([{"computer_id":"bbbb","computer_name":"Server","pword_required":false,"app_version":"",)"
            R"("date":200,"cloud":0,"storage_root_name":"cloud"},)"
            R"({"computer_id":"aaaa","computer_name":"Desk","pword_required":true,"app_version":"1.0",)"
            R"("date":100,"cloud":0,"storage_root_name":"cloud"}])")
            .array();
    EXPECT_EQ(reply.json().value(u"computers"_s).toArray(), expected) << reply.body.toStdString();
}

TEST(RelayBrowser, FilesGoInAndOutOnlyInsideTheStorageRootAndNeverOverwrite)
{
    RunningRelay relay([](RelayConfig &config) { config.uploadLimit = 4 << 20; });
    auto browser = relay.browser();
    QByteArray big(5 << 20, 'v');
    big.replace(0, 5, "start");
    writeFile(relay.storageRoot() + u"/Shared/résumé \"big\".bin"_s, big);
    writeFile(relay.path(u"outside/secret.txt"_s), "secret");
    QFile::link(relay.path(u"outside/secret.txt"_s), relay.storageRoot() + u"/link.txt"_s);
    QFile::link(relay.path(u"outside"_s), relay.storageRoot() + u"/linkdir"_s);
    writeFile(relay.storageRoot() + u"/inside.txt"_s, "inside");
    QFile::link(relay.storageRoot() + u"/inside.txt"_s, relay.storageRoot() + u"/alias.txt"_s);

    const auto download = [&](const QString &path) {
        return browser->get("/api/download?cloud=0&path=" + QUrl::toPercentEncoding(path).toStdString());
    };
    const HttpReply ok = download(u"Shared/résumé \"big\".bin"_s);
    ASSERT_EQ(ok.status, 200);
    EXPECT_EQ(ok.body, big);
    EXPECT_TRUE(ok.headers.value("content-disposition").startsWith("attachment;"));
    EXPECT_TRUE(ok.headers.value("content-disposition").contains("UTF-8''r%C3%A9sum%C3%A9%20%22big%22.bin"));
    EXPECT_EQ(download(u"alias.txt"_s).body, QByteArray("inside"));

    for (const QString &bad :
         {u"../outside/secret.txt"_s, u"link.txt"_s, u"linkdir/secret.txt"_s,
          relay.path(u"outside/secret.txt"_s), u"uploads/../../outside/secret.txt"_s, u"uploads"_s, QString(),
          u"nothing.txt"_s, u"uploads//2026/11/x"_s, u"./inside.txt"_s}) {
        const HttpReply reply = download(bad);
        EXPECT_EQ(reply.status, 404) << bad.toStdString();
        EXPECT_FALSE(reply.body.contains("secret")) << bad.toStdString();
    }
    for (const char *bad : {"/api/download?cloud=1&path=inside.txt", "/api/download?cloud=-1&path=inside.txt",
                            "/api/download?cloud=x&path=inside.txt", "/api/download"}) {
        const HttpReply reply = browser->get(bad);
        EXPECT_EQ(reply.status, 400) << bad;
        EXPECT_FALSE(reply.json().value(u"message"_s).toString().isEmpty());
    }

    const QDate today = QDate::currentDate();
    const QString month = u"uploads/%1/%2/"_s.arg(today.year()).arg(today.month());

    const auto upload = [&](const std::string &name, const QByteArray &content) {
        return browser->request("POST", "/api/upload?cloud=0&name=" + name, content,
                                "application/octet-stream");
    };
    const QByteArray content(3 << 20, 'u');
    const HttpReply first = upload("photo%20one.jpg", content);
    ASSERT_EQ(first.status, 200) << first.body.toStdString();
    EXPECT_EQ(first.json().value(u"relative_path"_s).toString(), month + u"photo one.jpg"_s);
    const HttpReply second = upload("photo%20one.jpg", "two");
    ASSERT_EQ(second.status, 200);
    EXPECT_EQ(second.json().value(u"relative_path"_s).toString(), month + u"photo one (2).jpg"_s);
    EXPECT_EQ(readFile(relay.storageRoot() + u'/' + month + u"photo one.jpg"_s), content);
    EXPECT_EQ(readFile(relay.storageRoot() + u'/' + month + u"photo one (2).jpg"_s), QByteArray("two"));

    for (const std::string name : {"..", "a%2Fb", "", "%2E%2E%2Foutside", "x%00y", "new%0Aline"})
        EXPECT_EQ(upload(name, "data").status, 400) << name;
    EXPECT_EQ(upload("big.bin", QByteArray(5 << 20, 'b')).status, 413);
    const QStringList left = QDir(relay.storageRoot() + u'/' + month).entryList(QDir::Files | QDir::Hidden);
    EXPECT_EQ(left, (QStringList{u"photo one (2).jpg"_s, u"photo one.jpg"_s}))
        << "refused and cut-off uploads leave nothing behind";

    // An uploads folder that the synced folder turned into a link out is not written through.
    QDir(relay.storageRoot()).removeRecursively();
    QDir().mkpath(relay.storageRoot());
    QDir().mkpath(relay.path(u"elsewhere"_s));
    QFile::link(relay.path(u"elsewhere"_s), relay.storageRoot() + u"/uploads"_s);
    const HttpReply redirected = upload("x.txt", "data");
    EXPECT_EQ(redirected.status, 500);
    EXPECT_EQ(redirected.error(), u"storage_error"_s);
    QDirIterator it(relay.path(u"elsewhere"_s), QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    EXPECT_FALSE(it.hasNext()) << "nothing was written outside the StorageRoot";
}

TEST(RelayBrowser, BadInputGetsAClearErrorAndTheRelayCarriesOn)
{
    RunningRelay relay([](RelayConfig &config) { config.readTimeout = std::chrono::seconds(3); });
    auto browser = relay.browser();
    RelayClient agent(relay.port());

    for (const QByteArray &body :
         {QByteArray("not json"), QByteArray("[1]"), QByteArray("{\"computer_id\":5,\"request\":{}}"),
          QByteArray("{\"computer_id\":\"\",\"request\":{}}"),
          QByteArray("{\"computer_id\":\"c\",\"request\":[]}"),
          "{\"computer_id\":\"" + QByteArray(300, 'c') + "\",\"request\":{}}"}) {
        const HttpReply reply = browser->request("POST", "/api/request", body);
        EXPECT_EQ(reply.status, 400) << body.toStdString();
        EXPECT_FALSE(reply.json().value(u"message"_s).toString().isEmpty());
    }

    // 300 MB of spaces packed into a few hundred kilobytes: refused without inflating it all.
    QByteArray spaces(300 << 20, ' ');
    spaces[0] = '[';
    spaces[spaces.size() - 1] = ']';
    const QByteArray bomb = base64Encoding_URL_SAFE(zlibDeflate(spaces).value_or(QByteArray())).toLatin1();
    spaces.clear();
    for (const auto &[form, expected] : std::vector<std::pair<QByteArray, QString>>{
             {"os_sessions=x", u"bad_computer_id"_s},
             {"computer_id=c&os_sessions=%25%25%25", u"bad_sessions"_s},
             {"computer_id=c&result=bm90IHpsaWI=", u"bad_result"_s},
             {"computer_id=c&result=" + packEnvelope(QJsonDocument(QJsonArray{1})), u"bad_result"_s},
             {"computer_id=c&result_encrypted=%3Cscript%3E", u"bad_result"_s},
             {"computer_id=c&result=" + bomb, u"bad_result"_s}})
        EXPECT_EQ(agent.postForm("/result", form).error(), expected) << form.left(60).toStdString();
    EXPECT_EQ(agent.get("/result").status, 405);
    EXPECT_EQ(agent.postForm("/result", QByteArray(40 << 20, 'x')).status, 413);

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
    EXPECT_TRUE(page.body.contains("placeholder page"));
    EXPECT_EQ(page.headers.value("content-type"), QByteArray("text/html; charset=utf-8"));
    EXPECT_EQ(agent.get("/../state/access_token").status, 404);
    EXPECT_EQ(agent.get("/%2E%2E/state/access_token").status, 404);
    // A kept-alive connection carries one request after another; this client closes its own after one.
    const QByteArray twoAnswers = agent.raw("GET /api/computers HTTP/1.1\r\nHost: x\r\n\r\n"
                                            "GET / HTTP/1.1\r\nHost: x\r\nConnection: close\r\n\r\n");
    EXPECT_TRUE(twoAnswers.startsWith("HTTP/1.1 401") && twoAnswers.contains("placeholder page"));

    EXPECT_EQ(RelayClient::requests(agent.poll(u"c"_s)).size(), 0);
    EXPECT_EQ(browser->get("/api/computers").status, 200);
}

TEST(RelayBrowser, LinkPageShowsWhatALinkDescribesEscapedAndWithoutLogin)
{
    RunningRelay relay;
    RelayClient stranger(relay.port());
    const QString base = u"http://127.0.0.1:%1/l"_s.arg(relay.port());
    const QString name = u"a \"q\" <img src=x onerror=alert(1)> é 🙂 txt\u202Eexe.txt"_s;
    writeFile(relay.path(u"Docs & <b>/Sub/"_s + name), QByteArray(1234, 'x'));
    const std::optional<QUrl> link = qlk_Schema::qlkURLFor(relay.path(u"Docs & <b>/Sub/"_s) + name, base);
    ASSERT_TRUE(link);
    const HttpReply page = stranger.get(link->path(QUrl::FullyEncoded).toStdString());
    ASSERT_EQ(page.status, 200) << page.body.toStdString();
    EXPECT_TRUE(page.headers.value("content-security-policy").startsWith("default-src 'none'"));
    EXPECT_FALSE(page.body.contains("<img") || page.body.contains("<b>") || page.body.contains("\"q\""));
    EXPECT_TRUE(page.body.contains("&lt;img src=x onerror=alert(1)&gt; é 🙂 txt\uFFFDexe.txt"));
    EXPECT_TRUE(page.body.contains("A file of 1.2 kB (1,234 bytes)"));
    EXPECT_TRUE(page.body.contains("<li>Docs &amp; &lt;b&gt;</li><li>Sub</li>"));

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
    const QString data = u"Apps/vandrel/data.vdldata"_s;
    for (const auto &[planted, kind] :
         std::vector<std::pair<QString, QString>>{{u"Apps"_s, u"Apps folder"_s},
                                                  {u"Apps/vandrel"_s, u"StorageRoot folder"_s},
                                                  {data, u"data folder"_s},
                                                  {data + u"/sessions"_s, u"sessions folder"_s},
                                                  {data + u"/sessions_are_here.json"_s, u"marker file"_s},
                                                  {QString(), u"session file"_s}}) {
        SCOPED_TRACE(kind.toStdString());
        LogCapture::lines.clear();
        QTemporaryDir outside;
        writeFile(outside.filePath(u"victim.json"_s), "victim");
        const QString target =
            planted.endsWith(u".json") ? outside.filePath(u"victim.json"_s) : outside.path();
        RunningRelay relay([&](RelayConfig &config) {
            if (planted.isEmpty())
                return;
            QDir().mkpath(QFileInfo(config.cloudFolders.first() + u'/' + planted).path());
            ASSERT_TRUE(QFile::link(target, config.cloudFolders.first() + u'/' + planted));
        });
        auto browser = relay.browser();
        const QString id = browser->openSession();
        const QString sessionFile = relay.storageRoot() + u"/data.vdldata/sessions/%1.json"_s.arg(id);
        if (planted.isEmpty()) {
            ASSERT_TRUE(QFile::remove(sessionFile) && QFile::link(target, sessionFile));
        }
        for (const std::string what : {"/alive", "/close"})
            EXPECT_EQ(browser->post("/api/session/" + id.toStdString() + what, {}).status, 200);
        relay.stop();
        EXPECT_EQ(QDir(outside.path()).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot),
                  QStringList{u"victim.json"_s});
        EXPECT_EQ(readFile(outside.filePath(u"victim.json"_s)), QByteArray("victim"));
        EXPECT_EQ(LogCapture::lines.filter(u"symbolic link stands in place of the "_s + kind).size(), 1);
        EXPECT_TRUE(LogCapture::lines.filter(outside.path()).isEmpty());
    }
}
