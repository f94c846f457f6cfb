#include "AgentWithSession.h"
#include "common/JsonRecord.h"
#include "support/ls_Keychain.h"
#include "utils/vd_FileUtils.h"
#include "utils/vd_SimpleUtils.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QJsonArray>

#include <gtest/gtest.h>

namespace {

// The keys a result may hold: the request's own, the engine's stamps, and the handler's.
QStringList unexpectedKeys(const QJsonObject &result, const QJsonObject &request,
                           const QStringList &handlerKeys)
{
    QStringList unexpected;
    const QStringList stamps{QStringLiteral("n"), QStringLiteral("os_session"), QStringLiteral("pword_hash"),
                             QStringLiteral("vandrel_folder"), QStringLiteral("search_date")};
    for (const QString &key : result.keys()) {
        if (!request.contains(key) && !stamps.contains(key) && !handlerKeys.contains(key))
            unexpected << key;
    }
    return unexpected;
}

} // namespace

TEST_F(AgentWithSession, SearchesAndListings)
{
    const QJsonObject computer = ask({{QStringLiteral("request_type"), QStringLiteral("search")},
                                      {QStringLiteral("search_dir"), QStringLiteral("root_folders")}});
    EXPECT_EQ(computer.value(QStringLiteral("items")).toArray().first()[QStringLiteral("pword_required")],
              QJsonValue(true));
    EXPECT_EQ(computer.value(QStringLiteral("vandrel_folder")).toString(), root);

    const QJsonObject roots = ask({{QStringLiteral("request_type"), QStringLiteral("search")},
                                   {QStringLiteral("search_dir"), QString()}});
    EXPECT_EQ(itemPaths(roots).value(0), home.path());

    home.writeFile(QStringLiteral("Notes/file 10.txt"), "x");
    home.writeFile(QStringLiteral("Notes/file 9.txt"), "x");
    const QJsonObject folder = ask({{QStringLiteral("request_type"), QStringLiteral("search")},
                                    {QStringLiteral("search_dir"), home.filePath(QStringLiteral("Notes"))}});
    EXPECT_EQ(itemPaths(folder), QStringList({home.filePath(QStringLiteral("Notes/file 9.txt")),
                                              home.filePath(QStringLiteral("Notes/file 10.txt"))}));

    const QStringList pageKeys{
        QStringLiteral("items"),          QStringLiteral("total_item_count"), QStringLiteral("num_pages"),
        QStringLiteral("page_size"),      QStringLiteral("sub_folders"),      QStringLiteral("computer_name"),
        QStringLiteral("last_updated"),   QStringLiteral("platform"),         QStringLiteral("dropbox_path"),
        QStringLiteral("uploads_folder"), QStringLiteral("app_version")};
    const QStringList itemKeys{
        QStringLiteral("path"),          QStringLiteral("mod_date"),   QStringLiteral("dir"),
        QStringLiteral("size"),          QStringLiteral("pkg"),        QStringLiteral("display"),
        QStringLiteral("in_db"),         QStringLiteral("in_uploads"), QStringLiteral("matching_path"),
        QStringLiteral("up_ok"),         QStringLiteral("extra_info"), QStringLiteral("preview_width"),
        QStringLiteral("preview_height")};
    EXPECT_EQ(unexpectedKeys(folder, {{QStringLiteral("request_type"), 0}, {QStringLiteral("search_dir"), 0}},
                             pageKeys),
              QStringList());
    for (const QJsonValue &item : folder.value(QStringLiteral("items")).toArray())
        EXPECT_EQ(unexpectedKeys(item.toObject(), {}, itemKeys), QStringList());

    // Hidden names never show; accented ones sort in place.
    home.writeFile(QStringLiteral("Notes/.secret"), "x");
    home.writeFile(QStringLiteral("Notes/\u00e9t\u00e9.txt"), "x");
    const QStringList sorted =
        itemPaths(ask({{QStringLiteral("request_type"), QStringLiteral("search")},
                       {QStringLiteral("search_dir"), home.filePath(QStringLiteral("Notes"))}}));
    EXPECT_EQ(sorted, QStringList({home.filePath(QStringLiteral("Notes/\u00e9t\u00e9.txt")),
                                   home.filePath(QStringLiteral("Notes/file 9.txt")),
                                   home.filePath(QStringLiteral("Notes/file 10.txt"))}));

    // Files written moments before are found by name, by a word inside them and by type.
    const QString fresh = home.writeFile(QStringLiteral("Notes/Fresh Minutes.txt"), "budget meeting");
    const auto eventually = [&](const QJsonObject &request, const QString &wanted) {
        QStringList found;
        for (int attempt = 0; attempt < 20 && !found.contains(wanted); ++attempt)
            found = itemPaths(ask(request));
        return found;
    };
    const QJsonObject search{{QStringLiteral("request_type"), QStringLiteral("search")},
                             {QStringLiteral("search_dir"), home.path()}};
    const auto with = [&](const char *key, const QString &value) {
        QJsonObject request = search;
        request.insert(QLatin1String(key), value);
        return request;
    };
    EXPECT_TRUE(eventually(with("name_search", QStringLiteral("minutes")), fresh).contains(fresh));
    EXPECT_TRUE(eventually(with("search_string", QStringLiteral("budg")), fresh).contains(fresh));
    const QString many = QFileInfo(home.writeFile(QStringLiteral("Many/m.txt"), "m")).path();
    const QStringList folders = eventually(with("file_type", QStringLiteral("public.folder")), many);
    EXPECT_TRUE(folders.contains(many));
    EXPECT_FALSE(folders.contains(fresh));

    // A malformed query finds nothing, not even what its well-formed part would match, and says why.
    QJsonObject malformed = with("name_search", QStringLiteral("minutes"));
    malformed.insert(QStringLiteral("file_type"), QStringLiteral("kMDItemContentTypeTree == (("));
    const QJsonObject broken = ask(malformed);
    EXPECT_TRUE(itemPaths(broken).isEmpty());
    EXPECT_EQ(broken.value(QStringLiteral("total_item_count")).toInt(), 0);
    EXPECT_TRUE(agent->log().contains(QStringLiteral("search failed"))) << agent->log().toStdString();

    // A file already copied into the uploads folder is offered as that copy.
    ask({{QStringLiteral("request_type"), QStringLiteral("copy_to_dropbox")},
         {QStringLiteral("path"), fresh}});
    const QJsonObject listed = ask({{QStringLiteral("request_type"), QStringLiteral("search")},
                                    {QStringLiteral("search_dir"), home.filePath(QStringLiteral("Notes"))}});
    QString match;
    bool uploadable = false;
    for (const QJsonValue &item : listed.value(QStringLiteral("items")).toArray()) {
        if (item[QStringLiteral("path")].toString() == fresh) {
            match = item[QStringLiteral("matching_path")].toString();
            uploadable = item[QStringLiteral("up_ok")].toBool();
        }
    }
    EXPECT_TRUE(match.startsWith(root + QStringLiteral("/uploads/"))) << match.toStdString();
    EXPECT_TRUE(uploadable);
}

TEST_F(AgentWithSession, CopiesMovesAndItemInfo)
{
    const QString source = home.writeFile(QStringLiteral("Documents/a.txt"), "first");
    const QJsonObject copy = ask({{QStringLiteral("request_type"), QStringLiteral("copy_to_dropbox")},
                                  {QStringLiteral("path"), source}});
    EXPECT_EQ(copy.value(QStringLiteral("message")).toString(), QStringLiteral("Copied to Dropbox"));
    const QString copied = copy.value(QStringLiteral("matching_path")).toString();

    const QJsonObject move = ask({{QStringLiteral("request_type"), QStringLiteral("move_from_dropbox")},
                                  {QStringLiteral("path"), copied},
                                  {QStringLiteral("dest_path"), home.filePath(QStringLiteral("Documents"))}});
    EXPECT_EQ(move.value(QStringLiteral("message")).toString(), QStringLiteral("Moved out of Dropbox"));
    EXPECT_TRUE(QFile::exists(home.filePath(QStringLiteral("Documents/a (1).txt"))));

    const QJsonObject info = ask({{QStringLiteral("request_type"), QStringLiteral("info")},
                                  {QStringLiteral("path"), home.filePath(QStringLiteral("Documents"))}});
    const QJsonArray lines = info.value(QStringLiteral("info")).toArray();
    ASSERT_EQ(lines.size(), 3);
    EXPECT_EQ(lines[2][QStringLiteral("value")].toString(), QStringLiteral("3"));
}

// Answers carry the StorageRoot and the date, or a refusal, or are held back. The password is read afresh
// for every request, and neither it nor its hash reaches the log.
TEST_F(AgentWithSession, ResultsAreStampedRefusedOrHeldBack)
{
    ls_Keychain::setString(QStringLiteral("changed-pw"), vd_FileUtils::keyForComputerPassword());
    hash = vd_SimpleUtils::sha256Hex(computerId + QStringLiteral("___changed-pw"));
    const QString item = home.writeFile(QStringLiteral("Documents/notes.txt"), "twelve bytes");
    EXPECT_TRUE(
        ask(record({{"request_type", "info"}, {"path", item}})).value(QStringLiteral("info")).isArray());

    const QJsonObject unknown = ask(record({{"request_type", "Search"}}));
    EXPECT_EQ(unknown.value(QStringLiteral("vandrel_folder")).toString(), root);
    EXPECT_NEAR(unknown.value(QStringLiteral("search_date")).toDouble(),
                vd_FileUtils::JSONDate(QDateTime::currentDateTimeUtc()), 30);
    EXPECT_EQ(unknown.size(), 6) << "an unknown type gains only the folder and the date";

    const QJsonObject refused =
        ask(record({{"request_type", "search"}, {"pword_hash", hash.toUpper()}}), false);
    EXPECT_EQ(refused.value(QStringLiteral("auth_error")), QStringLiteral("auth_pword_failed"));
    EXPECT_FALSE(refused.contains(QStringLiteral("search_date")));
    // Sealed under the old password: refused in the clear.
    const QJsonObject wrongKey =
        ask(sealed(record({{"request_type", "search"}}), QStringLiteral("old")), false);
    EXPECT_EQ(wrongKey.value(QStringLiteral("auth_error")), QStringLiteral("auth_pword_failed"));
    EXPECT_EQ(wrongKey.value(QStringLiteral("request_decrypted_ok")), QJsonValue(false));

    EXPECT_TRUE(unanswered(record({{"request_type", "Search"}, {"dont_post", true}}), true));
    EXPECT_FALSE(agent->log().contains(hash)) << "the password hash reached the log";
    EXPECT_FALSE(agent->log().contains(QStringLiteral("changed-pw")));
}
