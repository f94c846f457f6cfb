#include "AgentWithSession.h"
#include "common/JsonRecord.h"
#include "utils/vd_FileUtils.h"
#include "utils/vd_SimpleUtils.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>

#include <gtest/gtest.h>

namespace {

// The keys of a result that are neither allowed nor the stamps every answer carries: the request's own,
// the StorageRoot and the date.
QStringList unexpectedKeys(const QJsonObject &result, QStringList allowed)
{
    allowed << QStringLiteral("request_type") << QStringLiteral("search_dir") << QStringLiteral("n")
            << QStringLiteral("os_session") << QStringLiteral("pword_hash")
            << QStringLiteral("vandrel_folder") << QStringLiteral("search_date");
    QStringList keys = result.keys();
    keys.removeIf([&](const QString &key) { return allowed.contains(key); });
    return keys;
}

} // namespace

// The agent's index, search handler and matched-files cache answer through the relay; the rules behind each
// answer have their own tests.
TEST_F(AgentWithSession, SearchesAndListings)
{
    const QString fresh = home.writeFile(QStringLiteral("Notes/Fresh Minutes.txt"), "budget meeting");
    const QJsonObject notes = record({{"request_type", "search"}, {"search_dir", home.filePath("Notes")}});
    const QJsonObject folder = ask(notes);
    EXPECT_EQ(itemPaths(folder), QStringList{fresh});
    EXPECT_EQ(unexpectedKeys(folder, {"items", "total_item_count", "num_pages", "page_size", "sub_folders",
                                      "computer_name", "last_updated", "platform", "dropbox_path",
                                      "uploads_folder", "app_version"}),
              QStringList());
    for (const QJsonValue &item : folder.value(QStringLiteral("items")).toArray())
        EXPECT_EQ(unexpectedKeys(item.toObject(),
                                 {"path", "mod_date", "dir", "size", "pkg", "display", "in_db", "in_uploads",
                                  "matching_path", "up_ok", "extra_info", "preview_width", "preview_height"}),
                  QStringList());

    // A file written moments before is found through the running index.
    const QJsonObject byName =
        record({{"request_type", "search"}, {"search_dir", home.path()}, {"name_search", "minutes"}});
    QStringList found;
    for (int attempt = 0; attempt < 20 && !found.contains(fresh); ++attempt)
        found = itemPaths(ask(byName));
    EXPECT_TRUE(found.contains(fresh));

    // A malformed query finds nothing, not even what its well-formed part would match, and says why.
    const QJsonObject broken = ask(record({{"request_type", "search"},
                                           {"search_dir", home.path()},
                                           {"name_search", "minutes"},
                                           {"file_type", "kMDItemContentTypeTree == (("}}));
    EXPECT_TRUE(itemPaths(broken).isEmpty());
    EXPECT_EQ(broken.value(QStringLiteral("total_item_count")).toInt(), 0);
    EXPECT_TRUE(agent->log().contains(QStringLiteral("search failed"))) << agent->log().toStdString();

    // A file just copied into the uploads folder is offered as that copy.
    ask(record({{"request_type", "copy_to_dropbox"}, {"path", fresh}}));
    const QJsonObject item = ask(notes).value(QStringLiteral("items")).toArray().first().toObject();
    EXPECT_TRUE(item.value(QStringLiteral("matching_path"))
                    .toString()
                    .startsWith(root + QStringLiteral("/uploads/")));
    EXPECT_TRUE(item.value(QStringLiteral("up_ok")).toBool());
}

// Answers carry the StorageRoot and the date, or a refusal, or are held back. The password is read afresh
// for every request, and neither it nor its hash reaches the log.
TEST_F(AgentWithSession, ResultsAreStampedRefusedOrHeldBack)
{
    home.setPassword(QStringLiteral("changed-pw"));
    hash = vd_SimpleUtils::sha256Hex(computerId + QStringLiteral("___changed-pw"));
    const QJsonObject unknown = ask(record({{"request_type", "Search"}}));
    EXPECT_EQ(unknown.value(QStringLiteral("vandrel_folder")).toString(), root);
    EXPECT_NEAR(unknown.value(QStringLiteral("search_date")).toDouble(),
                vd_FileUtils::JSONDate(QDateTime::currentDateTimeUtc()), 30);
    // Answered under the changed password, so it was read afresh; an unknown type gains only the folder
    // and the date.
    EXPECT_EQ(unknown.size(), 6) << QJsonDocument(unknown).toJson().toStdString();

    const QJsonObject refused = searchWith(hash.toUpper());
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
