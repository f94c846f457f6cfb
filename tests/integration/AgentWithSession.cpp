#include "AgentWithSession.h"

#include "support/Encodings.h"
#include "support/ls_Keychain.h"
#include "utils/vd_FileUtils.h"
#include "utils/vd_SimpleUtils.h"

#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>

#include <csignal>

using namespace std::chrono_literals;

void AgentWithSession::SetUp()
{
    qputenv("VANDREL_RELAY_URL", relay.baseUrl().toUtf8());
    qputenv("VANDREL_KEYCHAIN", "file");
    home.writeFile(QStringLiteral("Dropbox/Apps/vandrel/data.vdldata/sessions_are_here.json"), "{}");
    root = home.filePath(QStringLiteral("Dropbox/Apps/vandrel"));
    home.writeFile(QStringLiteral("Dropbox/Apps/vandrel/data.vdldata/sessions/web.json"),
                   QStringLiteral("{\"date\": %1}")
                       .arg(vd_FileUtils::JSONDate(QDateTime::currentDateTimeUtc()), 0, 'f', 3)
                       .toUtf8());
    ls_Keychain::setString(QStringLiteral("pw"), vd_FileUtils::keyForComputerPassword());
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
    qunsetenv("VANDREL_RELAY_URL");
    qunsetenv("VANDREL_KEYCHAIN");
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
    const QByteArray cipher = testEncrypt(QJsonDocument(inner).toJson(QJsonDocument::Compact),
                                          computerId + QStringLiteral("___pw"));
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
    return cipher ? testDecrypt(*cipher, computerId + QStringLiteral("___pw")) : std::nullopt;
}

QStringList AgentWithSession::itemPaths(const QJsonObject &result)
{
    QStringList paths;
    for (const QJsonValue &item : result.value(QStringLiteral("items")).toArray())
        paths << item[QStringLiteral("path")].toString();
    return paths;
}
