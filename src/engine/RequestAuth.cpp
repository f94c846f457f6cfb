#include "engine/RequestAuth.h"

#include "support/AesCipher.h"
#include "support/Encodings.h"
#include "utils/vd_FileUtils.h"
#include "utils/vd_SimpleUtils.h"

#include <QJsonDocument>

#include <openssl/crypto.h>

namespace {

const QString kDecryptedOk = QStringLiteral("request_decrypted_ok");

// The computer-icon thumbnails are ".0.<width>.<height>.png"; the bound keeps anything longer out.
constexpr qsizetype kMaxOpenThumbPathLength = 14;

// The members a handler reads as its parameters. Of an opened envelope they come from the ciphertext only,
// so that a relay cannot steer a genuine request by adding a clear copy beside it.
const QStringList kRequestParameters{
    QStringLiteral("request_type"),   QStringLiteral("path"),         QStringLiteral("dest_path"),
    QStringLiteral("search_dir"),     QStringLiteral("name_search"),  QStringLiteral("search_string"),
    QStringLiteral("file_type"),      QStringLiteral("result_page"),  QStringLiteral("page"),
    QStringLiteral("vandrel_folder"), QStringLiteral("encrypt_reply")};

} // namespace

QString RequestAuth::keyString(const QString &computerId, const QString &password)
{
    return computerId + QStringLiteral("___") + password;
}

bool RequestAuth::pwordHashOK(const QString &hash, const QString &keyString)
{
    const QByteArray expected = vd_SimpleUtils::sha256Hex(keyString).toUtf8();
    const QByteArray given = hash.toUtf8();
    return given.size() == expected.size() &&
           CRYPTO_memcmp(given.constData(), expected.constData(), size_t(expected.size())) == 0;
}

bool RequestAuth::passwordOK_OrRootInfo(const QJsonObject &request, const std::optional<QString> &keyString)
{
    // The computer list is open to anyone, but only as a search: the same marker on a preview, a copy or a
    // move must not lift the password check from those.
    if (request.value(QStringLiteral("request_type")) == QStringLiteral("search") &&
        request.value(QStringLiteral("search_dir")) == QStringLiteral("root_folders"))
        return true;
    if (request.value(QStringLiteral("request_type")) == QStringLiteral("thumb")) {
        const QString path = request.value(QStringLiteral("path")).toString();
        if (path.startsWith(QStringLiteral(".0.")) && path.endsWith(QStringLiteral(".png")) &&
            path.size() <= kMaxOpenThumbPathLength)
            return true;
    }
    if (request.value(kDecryptedOk) == QJsonValue(true))
        return true;
    const QString hash = request.value(QStringLiteral("pword_hash")).toString();
    return keyString && !hash.isEmpty() && pwordHashOK(hash, *keyString);
}

void RequestAuth::decryptRequest(QJsonObject &request, const QString &keyString)
{
    request.insert(kDecryptedOk, false);
    const QJsonValue payload = request.value(QStringLiteral("encrypted_request"));
    if (!payload.isString())
        return;
    const std::optional<QByteArray> cipherText = dataWithBase64EncodedString_URL_SAFE(payload.toString());
    if (!cipherText)
        return;
    std::optional<QByteArray> plainText;
    try {
        plainText = decryptWithString(*cipherText, keyString);
    } catch (const CipherException &) {
        // A wrong key usually fails the padding check; that is a wrong password, not an error.
        return;
    }
    if (!plainText)
        return;
    const QJsonDocument document = QJsonDocument::fromJson(*plainText);
    OPENSSL_cleanse(plainText->data(), size_t(plainText->size()));
    if (!document.isObject())
        return;
    const QJsonObject decrypted = document.object();
    for (const QString &parameter : kRequestParameters)
        request.remove(parameter);
    for (auto it = decrypted.begin(); it != decrypted.end(); ++it)
        request.insert(it.key(), it.value());
    request.insert(kDecryptedOk, true);
    request.insert(QStringLiteral("encrypt_reply"), true);
}

QString RequestAuth::encryptResult(const QJsonObject &result, const std::optional<QByteArray> &rawData,
                                   const QString &keyString)
{
    const QByteArray plainText =
        rawData ? *rawData : vd_FileUtils::JSONDataFromObj(result).value_or(QByteArray());
    std::optional<QByteArray> cipherText;
    try {
        cipherText = encryptWithString(plainText, keyString);
    } catch (const CipherException &) {
        cipherText.reset();
    }
    if (!cipherText || cipherText->isEmpty())
        return QStringLiteral("failedencryption");
    return base64Encoding_URL_SAFE(*cipherText);
}
