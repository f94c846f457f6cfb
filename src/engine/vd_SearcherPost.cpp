#include "engine/EngineLog.h"
#include "engine/RelayForm.h"
#include "engine/vd_Searcher.h"
#include "support/FSNCategories.h"
#include "support/FSNConnection.h"

bool vd_Searcher::runRequestsFromReply(const QByteArray &body, std::optional<FSNError> *error)
{
    const std::optional<QJsonObject> reply = dictionaryFromJSONWithError(body, error);
    runRequests(reply ? reply->value(QStringLiteral("requests")) : QJsonValue());
    return reply.has_value();
}

void vd_Searcher::startRelayPost(const QString &url, const RelayForm &form)
{
    QVariantMap parameters;
    for (const auto &[name, text] : form.fields)
        parameters.insert(name, text);
    // Whatever the status, a body that holds requests is run.
    const auto parse = [](FSNConnection &connection, std::optional<FSNError> *error) {
        return QVariant(runRequestsFromReply(connection.responseData(), error));
    };
    const auto completion = [](FSNConnection &connection) {
        if (!connection.error())
            return;
        const int status = connection.httpResponse() ? connection.httpResponse()->statusCode : 0;
        qCWarning(lcEngine).noquote() << QStringLiteral("Error status code: %1").arg(status);
    };
    const std::shared_ptr<FSNConnection> connection = FSNConnection::withUrl(
        QUrl(url + form.path), FSNRequestMethod::POST, {}, parameters, parse, completion);
    connection->setDeadline(std::chrono::milliseconds(relayDeadlineMs()));
    connection->start();
}
