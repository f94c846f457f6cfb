#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>

#include <optional>

// The password rules of requests, as pure functions of the key string, so that the engine reads the
// computer id and password afresh for each request and nothing here ever holds them.
class RequestAuth
{
public:
    // "<computer id>___<password>"; with no password it ends in the three underscores.
    static QString keyString(const QString &computerId, const QString &password);

    // True when the hash is exactly (case-sensitively) the SHA-256 hex of the key string. The comparison
    // takes the same time wherever the texts differ.
    static bool pwordHashOK(const QString &hash, const QString &keyString);

    // May the request run: the computer list (as a search) and the small computer-icon thumbnails need no
    // password; a
    // request the agent itself decrypted, or one with the right "pword_hash", may; nothing else.
    // Without a key string only the rules that need no password apply.
    static bool passwordOK_OrRootInfo(const QJsonObject &request, const std::optional<QString> &keyString);

    // Opens an "encrypted" envelope in place: the envelope's clear copies of request parameters are dropped,
    // its decrypted object's members are merged in (replacing the envelope's own) with "request_decrypted_ok"
    // and "encrypt_reply" true. A missing or undecodable payload, a cipher failure, and plaintext that is not
    // a JSON object all leave "request_decrypted_ok" false and the rest of the record as it was.
    static void decryptRequest(QJsonObject &request, const QString &keyString);

    // The "result_encrypted" text: URL-safe base64 of the ciphertext of the raw bytes when there are any,
    // else of the record's JSON text; "failedencryption" when encryption fails.
    static QString encryptResult(const QJsonObject &result, const std::optional<QByteArray> &rawData,
                                 const QString &keyString);
};
