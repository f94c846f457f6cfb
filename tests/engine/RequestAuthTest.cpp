#include "engine/RequestAuth.h"

#include "common/JsonRecord.h"
#include "support/AesCipher.h"
#include "support/Encodings.h"
#include "utils/vd_SimpleUtils.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <gtest/gtest.h>

using namespace Qt::StringLiterals;

namespace {

const QString kKey = RequestAuth::keyString(u"ComputerId0123456789abcdefghijkl"_s, u"s3cret"_s);

QString envelopePayload(const QByteArray &plainText)
{
    return base64Encoding_URL_SAFE(encryptWithString(plainText, kKey).value());
}

} // namespace

TEST(RequestAuth, OnlyTheComputerListSmallIconsDecryptedAndHashedRequestsRun)
{
    // The hash is the exact lower-case hex of the key text; the empty password's hash is no wildcard.
    EXPECT_EQ(kKey, u"ComputerId0123456789abcdefghijkl___s3cret"_s);
    const QString good = vd_SimpleUtils::sha256Hex(kKey);
    const QString wrong = vd_SimpleUtils::sha256Hex(u"guess"_s);
    const QString emptyPassword = vd_SimpleUtils::sha256Hex(RequestAuth::keyString(u"id"_s, {}));
    const std::pair<QJsonObject, bool> cases[] = {
        {record({{"request_type", "search"}, {"search_dir", "root_folders"}, {"pword_hash", wrong}}), true},
        {record({{"request_type", "thumb"}, {"path", ".0.128.128.png"}}), true},
        {record({{"request_type", "thumb"}, {"path", ".0.1024.768.png"}}), false},
        {record({{"request_type", "preview"}, {"path", ".0.128.128.png"}}), false},
        {record({{"request_type", "thumb"}, {"path", ".0.12.12.jpg"}}), false},
        {record({{"request_type", "thumb"}, {"path", "/.0.1.1.png"}}), false},
        {record({{"request_type", "thumb"}, {"path", "/etc/shadow"}, {"pword_hash", good}}), true},
        {record({{"request_type", "thumb"}, {"path", "/etc/shadow"}, {"pword_hash", wrong}}), false},
        {record({{"request_type", "search"}, {"search_dir", "/home"}}), false},
        {record({{"request_type", "search"}, {"pword_hash", good.toUpper()}}), false},
        {record({{"request_type", "search"}, {"pword_hash", good.left(63)}}), false},
        {record({{"request_type", "search"}, {"pword_hash", good + u'0'}}), false},
        {record({{"request_type", "search"}, {"pword_hash", emptyPassword}}), false},
        {record({{"request_type", "search"}, {"request_decrypted_ok", true}}), true},
        {record({{"request_type", "search"}, {"request_decrypted_ok", false}}), false},
        // Wrong types never pass as the texts they resemble.
        {record({{"search_dir", QJsonArray{"root_folders"}}}), false},
        {record({{"request_type", "search"}, {"request_decrypted_ok", "true"}}), false},
        {record({{"request_type", "search"}, {"pword_hash", 12}}), false},
    };
    for (const auto &[request, runs] : cases)
        EXPECT_EQ(RequestAuth::passwordOK_OrRootInfo(request, kKey), runs)
            << QJsonDocument(request).toJson().data();
    // The computer list marker opens the computer list, nothing else.
    for (const char *type : {"preview", "thumb", "info", "copy_to_dropbox", "move_from_dropbox", "encrypted"})
        EXPECT_FALSE(RequestAuth::passwordOK_OrRootInfo(
            record({{"request_type", type}, {"search_dir", "root_folders"}}), kKey))
            << type;
    // Without a readable password only the open rules apply, whatever hash is given.
    EXPECT_FALSE(RequestAuth::passwordOK_OrRootInfo(
        record({{"request_type", "search"}, {"pword_hash", good}}), std::nullopt));
    EXPECT_TRUE(RequestAuth::passwordOK_OrRootInfo(
        record({{"request_type", "search"}, {"search_dir", "root_folders"}}), std::nullopt));
}

TEST(RequestAuth, EnvelopesOpenOnlyUnderTheRightKeyAndOnlyToObjects)
{
    const QJsonObject envelope = record(
        {{"request_type", "encrypted"},
         {"os_session", "s1"},
         {"cache_key", "outer"},
         {"dest_path", "/planted"},
         {"path", "/planted"},
         {"encrypted_request", envelopePayload(R"({"request_type":"search","cache_key":"inner","q":"x"})")}});
    QJsonObject opened = envelope;
    RequestAuth::decryptRequest(opened, kKey);
    EXPECT_EQ(opened.value(u"request_type"_s), u"search"_s);
    EXPECT_EQ(opened.value(u"cache_key"_s), u"inner"_s);
    EXPECT_EQ(opened.value(u"os_session"_s), u"s1"_s);
    EXPECT_EQ(opened.value(u"q"_s), u"x"_s);
    // Parameters come from the ciphertext alone: clear copies beside it are gone.
    EXPECT_FALSE(opened.contains(u"dest_path"_s));
    EXPECT_FALSE(opened.contains(u"path"_s));
    EXPECT_EQ(opened.value(u"request_decrypted_ok"_s), QJsonValue(true));
    EXPECT_EQ(opened.value(u"encrypt_reply"_s), QJsonValue(true));

    const auto fails = [&](const QJsonValue &payload, const QString &key) {
        QJsonObject attempt = envelope;
        attempt.insert(u"encrypted_request"_s, payload);
        RequestAuth::decryptRequest(attempt, key);
        return attempt.value(u"request_decrypted_ok"_s) == QJsonValue(false) &&
               attempt.value(u"request_type"_s) == u"encrypted"_s && !attempt.contains(u"encrypt_reply"_s);
    };
    // Wrong keys: about one in 256 passes the padding check and yields garbage, which must fail the same way.
    for (int i = 0; i < 600; ++i)
        ASSERT_TRUE(fails(envelope.value(u"encrypted_request"_s),
                          RequestAuth::keyString(u"id"_s, QString::number(i))))
            << i;
    for (const QJsonValue &payload :
         {QJsonValue(envelopePayload("[1,2]")), QJsonValue(envelopePayload("{\"a\":")),
          QJsonValue(envelopePayload("")), QJsonValue(u"not*base64"_s), QJsonValue(u"AAAA"_s),
          QJsonValue(QString()), QJsonValue(42)})
        EXPECT_TRUE(fails(payload, kKey)) << QJsonDocument(QJsonArray{payload}).toJson().data();
}
