#include "engine/EngineLog.h"
#include "engine/RelayForm.h"
#include "engine/vd_Searcher.h"
#include "support/FSNCategories.h"
#include "support/FSNConnection.h"

#include <condition_variable>
#include <mutex>

bool vd_Searcher::runRequestsFromReply(const QByteArray &body, std::optional<FSNError> *error)
{
    const std::optional<QJsonObject> reply = dictionaryFromJSONWithError(body, error);
    runRequests(reply ? reply->value(QStringLiteral("requests")) : QJsonValue());
    return reply.has_value();
}

namespace {

constexpr int kMaxPostsInFlight = 6;

struct PostSlots
{
    std::mutex lock;
    std::condition_variable freed;
    int inFlight = 0; // guarded by lock
};

// Never destroyed: a connection may let go of its slot while the process's statics go away.
PostSlots &postSlots()
{
    static auto *slots = new PostSlots;
    return *slots;
}

// Holds one post slot; the slot is freed when the connection lets go of its completion, however it ended.
struct PostSlot
{
    ~PostSlot()
    {
        PostSlots &slots = postSlots();
        {
            const std::lock_guard lock(slots.lock);
            --slots.inFlight;
        }
        slots.freed.notify_one();
    }
};

// A slot for a new post, or none: a poll does not wait, a result waits up to the deadline.
std::shared_ptr<PostSlot> takePostSlot(bool wait, std::chrono::milliseconds deadline)
{
    PostSlots &slots = postSlots();
    std::unique_lock lock(slots.lock);
    const auto hasFreeSlot = [&slots] { return slots.inFlight < kMaxPostsInFlight; };
    if (!hasFreeSlot() && (!wait || !slots.freed.wait_for(lock, deadline, hasFreeSlot)))
        return nullptr;
    ++slots.inFlight;
    return std::make_shared<PostSlot>();
}

} // namespace

void vd_Searcher::startRelayPost(const QString &url, const RelayForm &form)
{
    const bool isResult = form.path != QStringLiteral("/result") || form.value(QStringLiteral("result"));
    const std::shared_ptr<PostSlot> slot =
        takePostSlot(isResult, std::chrono::milliseconds(relayDeadlineMs()));
    if (!slot) {
        if (isResult)
            qCWarning(lcEngine).noquote() << "relay posts are not finishing; a result was dropped";
        return;
    }
    QVariantMap parameters;
    for (const auto &[name, text] : form.fields)
        parameters.insert(name, text);
    // Whatever the status, a body that holds requests is run.
    const auto parse = [](FSNConnection &connection, std::optional<FSNError> *error) {
        return QVariant(runRequestsFromReply(connection.responseData(), error));
    };
    const auto completion = [slot](FSNConnection &connection) {
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
