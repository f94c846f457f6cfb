#include "engine/EngineLog.h"
#include "engine/RequestAuth.h"
#include "engine/vd_Searcher.h"
#include "support/Logging.h"
#include "support/ls_Keychain.h"
#include "utils/vd_FileUtils.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <chrono>

namespace {

constexpr qsizetype kMaxLoggedRecordLength = 2000;

// A few answers to failed password checks a second, with a small burst: plenty for a person mistyping a
// password, nothing like the pace of a relay that answers each refusal with a thousand new requests.
class RefusalBudget
{
public:
    bool take()
    {
        const std::lock_guard lock(m_lock);
        const auto now = std::chrono::steady_clock::now();
        const double seconds = std::chrono::duration<double>(now - m_refilled).count();
        m_tokens = std::min(kBurst, m_tokens + seconds * kPerSecond);
        m_refilled = now;
        if (m_tokens >= 1) {
            m_tokens -= 1;
            return true;
        }
        ++m_dropped;
        if (now - m_logged >= std::chrono::minutes(1)) {
            qCWarning(lcEngine).noquote()
                << QStringLiteral(
                       "requests with a wrong password are coming faster than %1 a second; dropped "
                       "%2 unanswered")
                       .arg(kPerSecond)
                       .arg(m_dropped);
            m_dropped = 0;
            m_logged = now;
        }
        return false;
    }

private:
    static constexpr double kPerSecond = 5;
    static constexpr double kBurst = 10;
    std::mutex m_lock;
    double m_tokens = kBurst;                                                            // guarded by m_lock
    std::chrono::steady_clock::time_point m_refilled = std::chrono::steady_clock::now(); // guarded by m_lock
    std::chrono::steady_clock::time_point m_logged{};                                    // guarded by m_lock
    qint64 m_dropped = 0;                                                                // guarded by m_lock
};

// Never destroyed: operations may still be finishing while the process's statics go away.
RefusalBudget &refusals()
{
    static auto *budget = new RefusalBudget;
    return *budget;
}

std::mutex s_handlersLock;
vd_Searcher::HandlerTable s_handlers; // guarded by s_handlersLock

vd_Searcher::Handler handlerFor(const QJsonValue &type)
{
    if (!type.isString())
        return {};
    const std::lock_guard lock(s_handlersLock);
    const auto found = s_handlers.find(type.toString());
    return found == s_handlers.end() ? vd_Searcher::Handler() : found->second;
}

// What a log line may show of a record: never the password hash, and of a decrypted request nothing but
// its session, since its plaintext is exactly what the sender wanted hidden.
QString describeForLog(const QJsonObject &request)
{
    QJsonObject shown = request;
    shown.remove(QStringLiteral("pword_hash"));
    if (request.value(QStringLiteral("request_decrypted_ok")) == QJsonValue(true))
        shown = QJsonObject{{QStringLiteral("request_type"), QStringLiteral("encrypted")},
                            {QStringLiteral("os_session"), request.value(QStringLiteral("os_session"))}};
    QString text = QString::fromUtf8(QJsonDocument(shown).toJson(QJsonDocument::Compact));
    if (text.size() > kMaxLoggedRecordLength)
        text = text.left(kMaxLoggedRecordLength) + QStringLiteral("...");
    return text;
}

QString describeType(const QJsonValue &type)
{
    if (type.isString())
        return type.toString();
    if (type.isUndefined() || type.isNull())
        return QStringLiteral("(null)");
    return QString::fromUtf8(QJsonDocument(QJsonArray{type}).toJson(QJsonDocument::Compact))
        .mid(1)
        .chopped(1)
        .left(kMaxLoggedRecordLength);
}

} // namespace

void vd_Searcher::setHandlers(HandlerTable handlers)
{
    const std::lock_guard lock(s_handlersLock);
    s_handlers = std::move(handlers);
}

vd_Searcher::vd_Searcher(const QJsonObject &request)
    : m_theRequest(request)
{
    setAutoDelete(true);
}

std::optional<QJsonObject> vd_Searcher::theRequest() const
{
    std::lock_guard lock(m_requestLock);
    return m_theRequest;
}

void vd_Searcher::setTheRequest(const std::optional<QJsonObject> &request)
{
    std::lock_guard lock(m_requestLock);
    m_theRequest = request;
}

std::optional<QByteArray> vd_Searcher::outRawData() const
{
    std::lock_guard lock(m_rawDataLock);
    return m_outRawData;
}

void vd_Searcher::setOutRawData(const std::optional<QByteArray> &data)
{
    std::lock_guard lock(m_rawDataLock);
    m_outRawData = data;
}

int vd_Searcher::queuePriority(const QJsonObject &request)
{
    return request.value(QStringLiteral("request_type")) == QStringLiteral("search") ? 8 : 0;
}

std::optional<QString> vd_Searcher::encryptionKey()
{
    // One line when reading starts to fail and one when it works again, however often requests ask.
    static std::atomic<bool> s_unreadable{false};
    const ls_Keychain::Read read = ls_Keychain::readStringForKey(vd_FileUtils::keyForComputerPassword());
    if (read.failure) {
        if (!s_unreadable.exchange(true))
            qCWarning(lcEngine).noquote()
                << QStringLiteral("the computer password cannot be read (%1); every request that needs it is "
                                  "refused until it can: unlock the keyring, or set the password again with "
                                  "'vandrel password set' (see 'vandrel password status')")
                       .arg(*read.failure);
        return std::nullopt;
    }
    if (s_unreadable.exchange(false))
        qCInfo(lcEngine).noquote() << "the computer password can be read again";
    return RequestAuth::keyString(vd_FileUtils::getComputerUUID(), read.value.value_or(QString()));
}

QString vd_Searcher::encryptResult(const QJsonObject &result, const std::optional<QByteArray> &rawData)
{
    const std::optional<QString> key = encryptionKey();
    return key ? RequestAuth::encryptResult(result, rawData, *key) : QStringLiteral("failedencryption");
}

std::optional<QString> vd_Searcher::getStorage_path(const QString &sessionId)
{
    if (sessionId.isEmpty())
        return std::nullopt;
    for (const QString &root : vd_FileUtils::storageFoldersDropBoxGDriveEtc()) {
        const std::optional<QJsonObject> sessions = get_sessions(root, false);
        if (sessions && sessions->contains(sessionId))
            return root;
    }
    qCWarning(lcEngine).noquote() << "Can't find a storage path...";
    return std::nullopt;
}

std::optional<QString> vd_Searcher::getStorage_path() const
{
    const std::optional<QJsonObject> request = theRequest();
    if (!request)
        return std::nullopt;
    return getStorage_path(request->value(QStringLiteral("os_session")).toString());
}

bool vd_Searcher::passwordOK_OrRootInfo() const
{
    const std::optional<QJsonObject> request = theRequest();
    if (!request)
        return false;
    if (RequestAuth::passwordOK_OrRootInfo(*request, std::nullopt))
        return true;
    // Only now is the password needed; when it cannot be read the request is refused.
    const std::optional<QString> key = encryptionKey();
    return key && RequestAuth::passwordOK_OrRootInfo(*request, *key);
}

void vd_Searcher::decryptRequest()
{
    std::optional<QJsonObject> request = theRequest();
    if (!request)
        return;
    const std::optional<QString> key = encryptionKey();
    if (!key) {
        request->insert(QStringLiteral("request_decrypted_ok"), false);
        setTheRequest(request);
        return;
    }
    RequestAuth::decryptRequest(*request, *key);
    setTheRequest(request);
}

void vd_Searcher::handleRequestIfWrongPassword(const QString &storageRoot)
{
    std::optional<QJsonObject> request = theRequest();
    if (!request)
        return;
    const QJsonValue type = request->value(QStringLiteral("request_type"));
    if (type != QStringLiteral("search") && type != QStringLiteral("encrypted"))
        return;
    if (!refusals().take())
        return;
    request->insert(QStringLiteral("auth_error"), QStringLiteral("auth_pword_failed"));
    setTheRequest(request);
    postResultAndGetMoreRequests(request, storageRoot, outRawData());
}

void vd_Searcher::main()
{
    std::optional<QJsonObject> request = theRequest();
    if (!request)
        return;
    const std::optional<QString> storageRoot = getStorage_path();
    if (!storageRoot || storageRoot->isEmpty()) {
        qCWarning(lcEngine).noquote()
            << QStringLiteral("no session found for %1").arg(describeForLog(*request));
        return;
    }
    request->insert(QStringLiteral("vandrel_folder"), *storageRoot);
    setTheRequest(request);
    const Logging::PrivateRequestScope privateRequest(
        request->value(QStringLiteral("request_decrypted_ok")) == QJsonValue(true));
    if (!passwordOK_OrRootInfo()) {
        handleRequestIfWrongPassword(*storageRoot);
        return;
    }

    const QJsonValue type = request->value(QStringLiteral("request_type"));
    if (const Handler handler = handlerFor(type))
        handler(*this, *request);
    else
        qCWarning(lcEngine).noquote()
            << QStringLiteral("unknown request type found, %1").arg(describeType(type));

    request->insert(QStringLiteral("search_date"), vd_FileUtils::JSONDate(QDateTime::currentDateTimeUtc()));
    setTheRequest(request);
    postResultAndGetMoreRequests(request, *storageRoot, outRawData());
    setTheRequest(std::nullopt);
}
