#include "engine/EngineLog.h"
#include "engine/RelayAddress.h"
#include "engine/RelayForm.h"
#include "engine/vd_Searcher.h"
#include "platform/SettingsKeys.h"
#include "platform/UserDefaults.h"
#include "support/FSNCategories.h"
#include "support/FSNConnection.h"
#include "utils/vd_FileUtils.h"

#include <QCoreApplication>
#include <QJsonArray>
#include <QJsonDocument>
#include <QTimer>
#include <QUrl>

#include <condition_variable>
#include <mutex>

namespace {

constexpr double kActiveWindowSeconds = 60.0;
constexpr int kMaxThreads = 4;
// Requests waiting beyond this many, or beyond this many bytes of their JSON text, are dropped: a relay
// that floods the agent must not exhaust its memory, nor its processor with checks of requests that fail.
// A WebApp page asks for a few dozen pictures at once.
constexpr int kMaxWaitingRequests = 200;
constexpr qint64 kMaxWaitingBytes = 8 * 1024 * 1024;

std::atomic<bool> s_initialised{false};
std::atomic<int> s_waitingRequests{0};
std::atomic<qint64> s_waitingBytes{0};

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

void vd_Searcher::initializeThings()
{
    if (s_initialised.exchange(true))
        return;
    QObject *owner = QCoreApplication::instance();
    const auto every = [owner](std::chrono::milliseconds interval, void (*slot)()) {
        auto *timer = new QTimer(owner);
        QObject::connect(timer, &QTimer::timeout, slot);
        timer->start(interval);
    };
    using namespace std::chrono_literals;
    every(60s, &vd_Searcher::checkForUserHungUp);
    every(3600s, &vd_Searcher::maintenance);
    every(1s, &vd_Searcher::postResultAndGetMoreRequestsTimer);
}

QThreadPool &vd_Searcher::opQ()
{
    // Never destroyed: operations may still be finishing while the process's statics go away.
    static QThreadPool *queue = [] {
        auto *pool = new QThreadPool;
        pool->setMaxThreadCount(kMaxThreads);
        return pool;
    }();
    return *queue;
}

void vd_Searcher::postResultAndGetMoreRequestsTimer()
{
    for (const QString &root : vd_FileUtils::storageFoldersDropBoxGDriveEtc())
        postResultAndGetMoreRequests(std::nullopt, root, std::nullopt);
}

void vd_Searcher::checkForUserHungUp()
{
    for (const QString &root : vd_FileUtils::storageFoldersDropBoxGDriveEtc())
        eraseOldOSSessions(root);
}

void vd_Searcher::maintenance()
{}

QString vd_Searcher::relayBaseURL()
{
    QString base = UserDefaults::stringValue(SettingsKeys::RelayServerURL).trimmed();
    while (base.endsWith(u'/'))
        base.chop(1);
    return base;
}

int vd_Searcher::relayDeadlineMs()
{
    const double seconds = UserDefaults::value(SettingsKeys::RelayRequestTimeout).toDouble();
    return seconds > 0 ? int(std::min(seconds, 86400.0) * 1000) : 60000;
}

void vd_Searcher::postResultAndGetMoreRequests(const std::optional<QJsonObject> &result,
                                               const QString &storageRoot,
                                               const std::optional<QByteArray> &rawData)
{
    if (result && result->value(QStringLiteral("dont_post")) == QJsonValue(true))
        return;
    const std::optional<QJsonObject> sessions = isUserActivelyUsingUs(storageRoot);
    if (!sessions)
        return;
    const QString url = relayBaseURL();
    if (url.isEmpty()) {
        static std::once_flag warned;
        std::call_once(warned, [] {
            qCWarning(lcEngine).noquote()
                << "no RelayServer address: set RelayServerURL in the settings or VANDREL_RELAY_URL";
        });
        return;
    }
    if (!isAllowedRelayAddress(url)) {
        static std::once_flag refused;
        std::call_once(refused, [&] {
            qCWarning(lcEngine).noquote()
                << QStringLiteral(
                       "RelayServer address %1 refused: plain http is allowed only to this machine "
                       "(127.0.0.1, ::1, localhost); use an https address")
                       .arg(QUrl(url).toDisplayString(QUrl::RemoveUserInfo));
        });
        return;
    }
    const RelayForm form = RelayForm::build(result, sessions->keys(), vd_FileUtils::getComputerUUID(),
                                            [&] { return encryptResult(*result, rawData); });
    startRelayPost(url, form);
}

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
        runRequestsFromReply(connection.responseData(), error);
    };
    const auto completion = [slot](FSNConnection &connection) {
        if (!connection.error())
            return;
        const int status = connection.httpResponse() ? connection.httpResponse()->statusCode : 0;
        qCWarning(lcEngine).noquote() << QStringLiteral("Error status code: %1").arg(status);
    };
    const std::shared_ptr<FSNConnection> connection =
        FSNConnection::withUrl(QUrl(url + form.path), {}, parameters, parse, completion);
    connection->setDeadline(std::chrono::milliseconds(relayDeadlineMs()));
    connection->start();
}

bool vd_Searcher::runRequestsFromReply(const QByteArray &body, std::optional<FSNError> *error)
{
    const std::optional<QJsonObject> reply = dictionaryFromJSONWithError(body, error);
    runRequests(reply ? reply->value(QStringLiteral("requests")) : QJsonValue());
    return reply.has_value();
}

void vd_Searcher::runRequests(const QJsonValue &requests)
{
    if (!requests.isArray())
        return;
    const QJsonArray list = requests.toArray();
    qsizetype dropped = 0;
    qsizetype notObjects = 0;
    for (const QJsonValue &element : list) {
        if (!element.isObject()) {
            ++notObjects;
            continue;
        }
        if (s_waitingRequests.load() >= kMaxWaitingRequests) {
            ++dropped;
            continue;
        }
        QJsonObject request = element.toObject();
        const qint64 bytes = QJsonDocument(request).toJson(QJsonDocument::Compact).size();
        if (s_waitingBytes.load() + bytes > kMaxWaitingBytes) {
            ++dropped;
            continue;
        }
        // Only the agent may vouch for a decrypted request; the relay cannot.
        request.remove(QStringLiteral("request_decrypted_ok"));
        auto *operation = new vd_Searcher(request);
        operation->m_queuedBytes = bytes;
        s_waitingBytes.fetch_add(bytes);
        if (request.value(QStringLiteral("request_type")) == QStringLiteral("encrypted"))
            operation->decryptRequest();
        const int priority = queuePriority(operation->theRequest().value_or(QJsonObject()));
        s_waitingRequests.fetch_add(1);
        opQ().start(operation, priority);
    }
    if (notObjects > 0)
        qCWarning(lcEngine).noquote()
            << QStringLiteral("skipped %1 requests that are not objects").arg(notObjects);
    if (dropped > 0)
        qCWarning(lcEngine).noquote()
            << QStringLiteral("request queue full, dropped %1 requests").arg(dropped);
}

void vd_Searcher::run()
{
    s_waitingRequests.fetch_sub(1);
    s_waitingBytes.fetch_sub(m_queuedBytes);
    main();
}

bool vd_Searcher::sActive(const QDateTime &now)
{
    return referenceSeconds(now) - gLastSessionActive.load() <= kActiveWindowSeconds;
}

QString vd_Searcher::statusString(const QDateTime &now)
{
    return sActive(now) ? QStringLiteral("idle") : QStringLiteral("active");
}
