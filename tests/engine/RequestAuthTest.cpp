#include "engine/RequestAuth.h"

#include "common/JsonRecord.h"
#include "support/AesCipher.h"
#include "support/Encodings.h"
#include "utils/vd_SimpleUtils.h"

#include <QJsonArray>

#include <gtest/gtest.h>

namespace {

const QString kKey =
    RequestAuth::keyString(QStringLiteral("ComputerId0123456789abcdefghijkl"), QStringLiteral("s3cret"));

QString envelopePayload(const QByteArray &plainText, const QString &key)
{
    return base64Encoding_URL_SAFE(encryptWithString(plainText, key).value());
}

} // namespace

TEST(RequestAuth, OnlyTheComputerListSmallIconsDecryptedAndHashedRequestsRun)
{
    const QString good = vd_SimpleUtils::sha256Hex(kKey);
    const QString wrong = vd_SimpleUtils::sha256Hex(QStringLiteral("guess"));
    const auto mayRun = [](const QJsonObject &request) {
        return RequestAuth::passwordOK_OrRootInfo(request, kKey);
    };

    EXPECT_TRUE(
        mayRun(record({{"request_type", "search"}, {"search_dir", "root_folders"}, {"pword_hash", wrong}})));
    // The computer list marker opens the computer list, nothing else.
    for (const char *type : {"preview", "thumb", "info", "copy_to_dropbox", "move_from_dropbox", "encrypted"})
        EXPECT_FALSE(mayRun(record({{"request_type", type}, {"search_dir", "root_folders"}}))) << type;
    // Without a readable password only the open rules apply, whatever hash is given.
    EXPECT_FALSE(RequestAuth::passwordOK_OrRootInfo(
        record({{"request_type", "search"}, {"pword_hash", good}}), std::nullopt));
    EXPECT_TRUE(RequestAuth::passwordOK_OrRootInfo(
        record({{"request_type", "search"}, {"search_dir", "root_folders"}}), std::nullopt));
    EXPECT_TRUE(mayRun(record({{"request_type", "thumb"}, {"path", ".0.128.128.png"}})));
    EXPECT_FALSE(mayRun(record({{"request_type", "thumb"}, {"path", ".0.1024.768.png"}})));
    EXPECT_FALSE(mayRun(record({{"request_type", "preview"}, {"path", ".0.128.128.png"}})));
    EXPECT_FALSE(mayRun(record({{"request_type", "thumb"}, {"path", ".0.12.12.jpg"}})));
    EXPECT_FALSE(mayRun(record({{"request_type", "thumb"}, {"path", "/.0.1.1.png"}})));
    EXPECT_TRUE(mayRun(record({{"request_type", "thumb"}, {"path", "/etc/shadow"}, {"pword_hash", good}})));
    EXPECT_FALSE(mayRun(record({{"request_type", "thumb"}, {"path", "/etc/shadow"}, {"pword_hash", wrong}})));
    EXPECT_FALSE(mayRun(record({{"request_type", "search"}, {"search_dir", "/home"}})));
    EXPECT_FALSE(mayRun(record({{"request_type", "search"}, {"pword_hash", ""}})));
    // The hash is the exact lower-case hex of the key text; the empty password's hash is no wildcard.
    EXPECT_EQ(kKey, QStringLiteral("ComputerId0123456789abcdefghijkl___s3cret"));
    for (const QString &near : {good.toUpper(), good.left(63), good + u'0',
                                vd_SimpleUtils::sha256Hex(RequestAuth::keyString(QStringLiteral("id"), {}))})
        EXPECT_FALSE(mayRun(record({{"request_type", "search"}, {"pword_hash", near}})))
            << near.toStdString();
    EXPECT_TRUE(mayRun(record({{"request_type", "search"}, {"request_decrypted_ok", true}})));
    EXPECT_FALSE(mayRun(record({{"request_type", "search"}, {"request_decrypted_ok", false}})));
    // Wrong types never pass as the texts they resemble.
    EXPECT_FALSE(mayRun(record({{"search_dir", QJsonArray{"root_folders"}}})));
    EXPECT_FALSE(mayRun(record({{"request_type", "search"}, {"request_decrypted_ok", "true"}})));
    EXPECT_FALSE(mayRun(record({{"request_type", "search"}, {"pword_hash", 12}})));
}

TEST(RequestAuth, EnvelopesOpenOnlyUnderTheRightKeyAndOnlyToObjects)
{
    QJsonObject envelope =
        record({{"request_type", "encrypted"},
                {"os_session", "s1"},
                {"cache_key", "outer"},
                {"dest_path", "/planted"},
                {"path", "/planted"},
                {"encrypted_request",
                 envelopePayload(R"({"request_type":"search","cache_key":"inner","q":"x"})", kKey)}});
    QJsonObject opened = envelope;
    RequestAuth::decryptRequest(opened, kKey);
    EXPECT_EQ(opened.value(QStringLiteral("request_type")), QStringLiteral("search"));
    EXPECT_EQ(opened.value(QStringLiteral("cache_key")), QStringLiteral("inner"));
    EXPECT_EQ(opened.value(QStringLiteral("os_session")), QStringLiteral("s1"));
    EXPECT_EQ(opened.value(QStringLiteral("q")), QStringLiteral("x"));
    // Parameters come from the ciphertext alone: clear copies beside it are gone.
    EXPECT_FALSE(opened.contains(QStringLiteral("dest_path")));
    EXPECT_FALSE(opened.contains(QStringLiteral("path")));
    EXPECT_EQ(opened.value(QStringLiteral("request_decrypted_ok")), QJsonValue(true));
    EXPECT_EQ(opened.value(QStringLiteral("encrypt_reply")), QJsonValue(true));

    // Wrong keys: about one in 256 passes the padding check and yields garbage, which must fail the same way.
    for (int i = 0; i < 600; ++i) {
        QJsonObject attempt = envelope;
        RequestAuth::decryptRequest(attempt,
                                    RequestAuth::keyString(QStringLiteral("id"), QString::number(i)));
        ASSERT_EQ(attempt.value(QStringLiteral("request_decrypted_ok")), QJsonValue(false)) << i;
        ASSERT_EQ(attempt.value(QStringLiteral("request_type")), QStringLiteral("encrypted"));
        ASSERT_FALSE(attempt.contains(QStringLiteral("encrypt_reply")));
    }

    const auto fails = [](const QJsonValue &payload) {
        QJsonObject bad = record({{"request_type", "encrypted"}, {"encrypted_request", payload}});
        RequestAuth::decryptRequest(bad, kKey);
        return bad.value(QStringLiteral("request_decrypted_ok")) == QJsonValue(false) &&
               bad.value(QStringLiteral("request_type")) == QStringLiteral("encrypted") &&
               !bad.contains(QStringLiteral("encrypt_reply"));
    };
    EXPECT_TRUE(fails(envelopePayload("[1,2]", kKey)));
    EXPECT_TRUE(fails(envelopePayload("\"search\"", kKey)));
    EXPECT_TRUE(fails(envelopePayload("{\"a\":", kKey)));
    EXPECT_TRUE(fails(envelopePayload("", kKey)));
    EXPECT_TRUE(fails(QStringLiteral("not*base64")));
    EXPECT_TRUE(fails(QStringLiteral("AAAA")));
    EXPECT_TRUE(fails(QString()));
    EXPECT_TRUE(fails(42));
    EXPECT_TRUE(fails(QJsonValue()));
}
