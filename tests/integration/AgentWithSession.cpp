#include "AgentWithSession.h"

#include "support/AesCipher.h"
#include "support/Encodings.h"
#include "utils/vd_SimpleUtils.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <csignal>

using namespace std::chrono_literals;

void AgentWithSession::SetUp()
{
    home.setEnvironment("VANDREL_RELAY_URL", relay.baseUrl().toUtf8());
    root = home.root();
    home.addSession(QStringLiteral("web"));
    home.setPassword(QStringLiteral("pw"));
    prepareHome();
    agent = std::make_unique<AgentProcess>(home);
    const auto first = relay.waitForPoll([](const FakeRelay::Poll &) { return true; });
    ASSERT_TRUE(first) << agent->log().toStdString();
    computerId = first->computerId;
    hash = vd_SimpleUtils::sha256Hex(computerId + QStringLiteral("___pw"));
}

void AgentWithSession::TearDown()
{
    agent->stop(SIGTERM);
}

QString AgentWithSession::mark(QJsonObject &request, bool withHash)
{
    const QString marker = QString::number(++m_sent);
    request.insert(QStringLiteral("n"), marker);
    request.insert(QStringLiteral("os_session"), QStringLiteral("web"));
    if (withHash)
        request.insert(QStringLiteral("pword_hash"), hash);
    relay.queueRequests(QJsonArray{request});
    return marker;
}

QJsonObject AgentWithSession::ask(QJsonObject request, bool withHash)
{
    const QString marker = mark(request, withHash);
    const auto poll = relay.waitForPoll(
        [&](const FakeRelay::Poll &p) { return p.result && p.result->value(QStringLiteral("n")) == marker; },
        30s);
    return poll ? *poll->result : QJsonObject{{QStringLiteral("missing"), agent->log()}};
}

bool AgentWithSession::unanswered(QJsonObject request, bool withHash)
{
    const QString marker = mark(request, withHash);
    return !relay.waitForPoll(
        [&](const FakeRelay::Poll &p) { return p.result && p.result->value(QStringLiteral("n")) == marker; },
        3s);
}

QJsonObject AgentWithSession::sealed(const QJsonObject &inner, const QString &cacheKey) const
{
    const QByteArray cipher = encryptWithString(QJsonDocument(inner).toJson(QJsonDocument::Compact),
                                                computerId + QStringLiteral("___pw"))
                                  .value_or(QByteArray());
    return {{QStringLiteral("request_type"), QStringLiteral("encrypted")},
            {QStringLiteral("os_session"), QStringLiteral("web")},
            {QStringLiteral("cache_key"), cacheKey},
            {QStringLiteral("encrypted_request"), base64Encoding_URL_SAFE(cipher)}};
}

std::optional<QByteArray> AgentWithSession::openedResult(const QString &cacheKey)
{
    const auto poll = relay.waitForPoll(
        [&](const FakeRelay::Poll &p) {
            return p.path == "/result_encrypted" &&
                   p.form.value(QStringLiteral("cache_key")) == cacheKey.toUtf8();
        },
        30s);
    if (!poll)
        return std::nullopt;
    const std::optional<QByteArray> cipher = dataWithBase64EncodedString_URL_SAFE(
        QString::fromLatin1(poll->form.value(QStringLiteral("result_encrypted"))));
    return cipher ? decryptWithString(*cipher, computerId + QStringLiteral("___pw")) : std::nullopt;
}

QStringList AgentWithSession::itemPaths(const QJsonObject &result)
{
    QStringList paths;
    for (const QJsonValue &item : result.value(QStringLiteral("items")).toArray())
        paths << item[QStringLiteral("path")].toString();
    return paths;
}
