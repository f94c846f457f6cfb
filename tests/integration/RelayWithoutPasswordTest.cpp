#include "AgentWithSession.h"
#include "common/JsonRecord.h"
#include "common/TestPdf.h"
#include "common/VandrelCommand.h"
#include "platform/FileSecretStore.h"
#include "platform/SettingsKeys.h"
#include "platform/UserDefaults.h"
#include "utils/vd_FileUtils.h"
#include "utils/vd_SimpleUtils.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

QStringList entries(const QString &folder)
{
    return QDir(folder).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
}

} // namespace

// A relay that knows the computer id but not the password: the computer list marker opens nothing but the
// computer list (a refused thumbnail posts nothing), and a clear member beside a genuine envelope steers
// nothing. What is asked sealed is answered sealed and kept out of the log.
TEST_F(AgentWithSession, TheComputerListMarkerOpensOnlyTheComputerList)
{
    const QString secret = home.writeFile(QStringLiteral("Documents/secret.txt"), "private");
    const QString pdf = home.writeFile(QStringLiteral("Documents/page.pdf"), makePdf("page"));
    const QString uploads = root + QStringLiteral("/uploads");
    const QJsonValue open = QStringLiteral("root_folders");
    const std::pair<const char *, QString> requests[] = {{"preview", pdf + ".jpg"},
                                                         {"thumb", pdf + ".1.64.64.jpg"},
                                                         {"info", secret},
                                                         {"copy_to_dropbox", secret},
                                                         {"move_from_dropbox", secret}};
    for (const auto &[type, path] : requests)
        EXPECT_TRUE(unanswered(record({{"request_type", type},
                                       {"search_dir", open},
                                       {"path", path},
                                       {"dest_path", home.filePath(QStringLiteral("Moved"))}})))
            << type;
    EXPECT_TRUE(QFile::exists(secret));
    EXPECT_FALSE(QFile::exists(home.filePath(QStringLiteral("Moved/secret.txt"))));
    EXPECT_FALSE(QFile::exists(vd_FileUtils::getFileByDatePath(uploads) + QStringLiteral("/secret.txt")));

    // A genuine encrypted copy; the relay adds clear copies of its parameters beside the ciphertext.
    const QString elsewhere = home.filePath(QStringLiteral("Elsewhere"));
    QDir().mkpath(elsewhere);
    QJsonObject envelope = sealed(record({{"request_type", "copy_to_dropbox"}, {"path", secret}}), "copy");
    envelope.insert(QStringLiteral("dest_path"), elsewhere);
    envelope.insert(QStringLiteral("vandrel_folder"), elsewhere);
    envelope.insert(QStringLiteral("lifetime"), 60);
    relay.queueRequests(QJsonArray{envelope});
    const std::optional<QByteArray> copied = openedResult(QStringLiteral("copy"));
    ASSERT_TRUE(copied) << agent->log().toStdString();
    const QJsonObject result = QJsonDocument::fromJson(*copied).object();
    EXPECT_EQ(result.value(QStringLiteral("message")).toString(), QStringLiteral("Copied to Dropbox"));
    EXPECT_TRUE(result.value(QStringLiteral("matching_path")).toString().startsWith(uploads + u'/'));
    EXPECT_EQ(entries(elsewhere), QStringList());
    // The caller's own clear keys are still echoed.
    EXPECT_EQ(result.value(QStringLiteral("lifetime")).toInt(), 60);

    // A search sealed in an envelope runs as a search and its answer is encrypted; so are a thumbnail's
    // raw bytes, which travel alone.
    relay.queueRequests(QJsonArray{
        sealed(
            record({{"request_type", "search"}, {"search_dir", home.filePath(QStringLiteral("Documents"))}}),
            "list"),
        sealed(record({{"request_type", "thumb"}, {"path", pdf + ".1.64.64.png"}}), "thumb")});
    const std::optional<QByteArray> listed = openedResult(QStringLiteral("list"));
    ASSERT_TRUE(listed);
    EXPECT_TRUE(itemPaths(QJsonDocument::fromJson(*listed).object()).contains(secret));
    const std::optional<QByteArray> thumb = openedResult(QStringLiteral("thumb"));
    ASSERT_TRUE(thumb);
    EXPECT_TRUE(thumb->startsWith("\x89PNG")) << thumb->left(16).toHex().toStdString();
    // A damaged picture is logged with its path when asked in the clear, without it when asked sealed. (In
    // a hidden folder, which the index leaves alone.)
    const QByteArray damaged = QByteArray("\xff\xd8\xff\xe0", 4) + QByteArray(2000, 'x');
    const QString plainDamaged = home.writeFile(QStringLiteral(".hidden/plain.jpg"), damaged);
    const QString sealedDamaged = home.writeFile(QStringLiteral(".hidden/sealed.jpg"), damaged);
    ask(record({{"request_type", "thumb"}, {"path", plainDamaged + ".1.64.64.jpg"}}));
    relay.queueRequests(QJsonArray{
        sealed(record({{"request_type", "thumb"}, {"path", sealedDamaged + ".1.64.64.jpg"}}), "bad")});
    ASSERT_TRUE(openedResult(QStringLiteral("bad")));
    EXPECT_TRUE(agent->log().contains(plainDamaged));
    EXPECT_FALSE(agent->log().contains(sealedDamaged)) << agent->log().toStdString();
}

// move_from_dropbox judges where its source really is.
TEST_F(AgentWithSession, MovesTakeNothingFromOutsideTheDropboxFolder)
{
    const QString dropbox = home.filePath(QStringLiteral("Dropbox"));
    const QString secret = home.writeFile(QStringLiteral("Documents/secret.txt"), "private");
    const QString archived = home.writeFile(QStringLiteral("Dropbox-archive/old.txt"), "old");
    QDir().mkpath(root + QStringLiteral("/uploads"));
    QFile::link(secret, root + QStringLiteral("/uploads/link.txt"));
    const QString destination = home.filePath(QStringLiteral("Moved"));
    QDir().mkpath(destination);
    for (const QString &source :
         {dropbox + QStringLiteral("/Apps/vandrel/uploads/../../../../Documents/secret.txt"),
          dropbox + QStringLiteral("/../Documents/secret.txt"), archived,
          root + QStringLiteral("/uploads/link.txt")}) {
        const QJsonObject refused = ask(
            record({{"request_type", "move_from_dropbox"}, {"path", source}, {"dest_path", destination}}));
        EXPECT_EQ(refused.value(QStringLiteral("error")).toString(),
                  source + QStringLiteral(" is not in your Dropbox folder"))
            << source.toStdString();
    }
    EXPECT_TRUE(QFile::exists(secret));
    EXPECT_TRUE(QFile::exists(archived));
    EXPECT_EQ(entries(destination), QStringList());

    // An item truly inside still moves, however its path is spelled.
    home.writeFile(QStringLiteral("Dropbox/Notes/keep.txt"), "mine");
    QDir().mkpath(dropbox + QStringLiteral("/Photos"));
    const QJsonObject moved = ask(record({{"request_type", "move_from_dropbox"},
                                          {"path", dropbox + QStringLiteral("/Photos/../Notes/keep.txt")},
                                          {"dest_path", destination}}));
    EXPECT_EQ(moved.value(QStringLiteral("message")).toString(), QStringLiteral("Moved out of Dropbox"));
    EXPECT_EQ(entries(destination), QStringList{QStringLiteral("keep.txt")});
}

// The password store cannot be read, here a keychain file others may read, later one that is damaged. The
// password is read for each request, so the agent meets the failure while running.
TEST_F(AgentWithSession, AnUnreadablePasswordKeepsTheComputerClosed)
{
    const QString keychain = FileSecretStore::defaultPath();
    ::chmod(QFile::encodeName(keychain).constData(), 0644);
    const QString emptyHash = vd_SimpleUtils::sha256Hex(computerId + QStringLiteral("___"));
    // However often it is asked, the log says so once.
    for (int attempt = 0; attempt < 3; ++attempt)
        EXPECT_EQ(searchWith(emptyHash).value(QStringLiteral("auth_error")),
                  QStringLiteral("auth_pword_failed"));
    EXPECT_TRUE(
        unanswered(record({{"request_type", "info"}, {"path", home.path()}, {"pword_hash", emptyHash}})));
    const QJsonObject computer =
        ask(record({{"request_type", "search"}, {"search_dir", "root_folders"}}), false);
    EXPECT_EQ(computer.value(QStringLiteral("items")).toArray().first()[QStringLiteral("pword_required")],
              QJsonValue(true));
    EXPECT_EQ(agent->log().count(QStringLiteral("the computer password cannot be read")), 1)
        << agent->log().toStdString();

    // Damaged instead: still closed. Repaired: open with the real password, and the log says so.
    QFile::remove(keychain);
    home.writeFile(QStringLiteral(".local/share/vandrel/keychain.json"), "{\"cut off");
    ::chmod(QFile::encodeName(keychain).constData(), 0600);
    EXPECT_EQ(searchWith(emptyHash).value(QStringLiteral("auth_error")), QStringLiteral("auth_pword_failed"));
    QFile::remove(keychain);
    home.setPassword(QStringLiteral("pw"));
    EXPECT_FALSE(searchWith(hash).contains(QStringLiteral("auth_error")));
    EXPECT_TRUE(agent->log().contains(QStringLiteral("the computer password can be read again")));
}

namespace {

// The password went into the Secret Service on an earlier launch; on this one no Secret Service answers,
// while an older password still sits in the file store.
class AgentWhoseSecretServiceIsGone : public AgentWithSession
{
protected:
    void prepareHome() override
    {
        UserDefaults::setValue(SettingsKeys::SecretStoreKind, QStringLiteral("secret-service"));
        qunsetenv("VANDREL_KEYCHAIN");
        home.setEnvironment("DBUS_SESSION_BUS_ADDRESS",
                            "unix:path=" + QFile::encodeName(home.filePath("no-bus")));
    }
};

} // namespace

TEST_F(AgentWhoseSecretServiceIsGone, NeitherFallsBackToTheFileNorOpens)
{
    // The file store's older password does not open it, nor does the empty one.
    for (const QString &proof : {hash, vd_SimpleUtils::sha256Hex(computerId + QStringLiteral("___"))})
        EXPECT_EQ(searchWith(proof).value(QStringLiteral("auth_error")), QStringLiteral("auth_pword_failed"));

    const QStringList status{QStringLiteral("password"), QStringLiteral("status")};
    EXPECT_TRUE(
        runVandrel(status).out.startsWith(u"The computer password cannot be read from the Secret Service"));

    // Setting the password again is what moves it: here into the file, and later launches read it there.
    QProcessEnvironment fileStore = QProcessEnvironment::systemEnvironment();
    fileStore.insert(QStringLiteral("VANDREL_KEYCHAIN"), QStringLiteral("file"));
    ASSERT_EQ(
        runVandrel({QStringLiteral("password"), QStringLiteral("set")}, "new one\n", fileStore).exitCode, 0);
    EXPECT_EQ(UserDefaults::stringValue(SettingsKeys::SecretStoreKind), QStringLiteral("file"));
    EXPECT_TRUE(runVandrel(status).out.startsWith(u"A computer password is set in the file"));
}

namespace {

// Links planted in the cloud folder for the agent's own folders, pointing at a folder outside it.
class AgentWithPlantedLinks : public AgentWithSession
{
protected:
    void prepareHome() override
    {
        home.writeFile(QStringLiteral("Elsewhere/computers/OLD.json"), "{\"last_updated\": 1000}");
        home.writeFile(QStringLiteral("Elsewhere/computers/%1.json").arg(QString(70, u'x')), "{}");
        home.writeFile(QStringLiteral("Elsewhere/data.vdldata/sessions/stale.json"), "{\"date\": 0}");
        home.addSession(QStringLiteral("fresh"), elsewhere);
        QDir().mkpath(elsewhere + QStringLiteral("/uploads"));
        QFile::link(elsewhere + QStringLiteral("/computers"),
                    root + QStringLiteral("/data.vdldata/computers"));
        QFile::link(elsewhere + QStringLiteral("/uploads"), root + QStringLiteral("/uploads"));
        const QString drive = home.filePath(QStringLiteral("GDrive/Apps/vandrel/data.vdldata"));
        QDir().mkpath(drive);
        QFile::link(elsewhere + QStringLiteral("/data.vdldata/sessions"),
                    drive + QStringLiteral("/sessions"));
        before = planted();
    }
    QStringList planted() const
    {
        return entries(elsewhere + QStringLiteral("/computers")) +
               entries(elsewhere + QStringLiteral("/data.vdldata/sessions"));
    }
    const QString elsewhere = home.filePath(QStringLiteral("Elsewhere"));
    QStringList before;
};

} // namespace

TEST_F(AgentWithPlantedLinks, LeadNowhere)
{
    const QString source = home.writeFile(QStringLiteral("Documents/a.txt"), "a");
    const QJsonObject copy = ask(record({{"request_type", "copy_to_dropbox"}, {"path", source}}));
    EXPECT_TRUE(copy.contains(QStringLiteral("error"))) << QJsonDocument(copy).toJson().toStdString();
    EXPECT_EQ(entries(elsewhere + QStringLiteral("/uploads")), QStringList());
    EXPECT_EQ(planted(), before);
    EXPECT_TRUE(QFileInfo(root + QStringLiteral("/uploads")).isSymLink());
    // A session reached through a link is no session: nothing polls for it.
    for (const FakeRelay::Poll &poll : relay.polls())
        EXPECT_FALSE(poll.sessions.contains(QStringLiteral("fresh")));
    EXPECT_TRUE(agent->log().contains(QStringLiteral("refusing ") + root + QStringLiteral("/uploads")))
        << agent->log().toStdString();
}
