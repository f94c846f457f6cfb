#include "engine/EngineLog.h"
#include "engine/RequestAuth.h"
#include "engine/vd_Searcher.h"
#include "support/ls_Keychain.h"
#include "utils/vd_FileUtils.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <array>

namespace {

constexpr qsizetype kMaxLoggedRecordLength = 2000;

std::mutex s_handlersLock;
std::array<vd_Searcher::Handler, 6> s_handlers; // guarded by s_handlersLock

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

void vd_Searcher::registerHandler(HandlerSlot slot, Handler handler)
{
    std::lock_guard lock(s_handlersLock);
    s_handlers.at(size_t(slot)) = std::move(handler);
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

QString vd_Searcher::encryptionKey()
{
    return RequestAuth::keyString(
        vd_FileUtils::getComputerUUID(),
        ls_Keychain::stringForKey(vd_FileUtils::keyForComputerPassword()).value_or(QString()));
}

QString vd_Searcher::encryptResult(const QJsonObject &result, const std::optional<QByteArray> &rawData)
{
    return RequestAuth::encryptResult(result, rawData, encryptionKey());
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
    return request && RequestAuth::passwordOK_OrRootInfo(*request, encryptionKey());
}

void vd_Searcher::decryptRequest()
{
    std::optional<QJsonObject> request = theRequest();
    if (!request)
        return;
    RequestAuth::decryptRequest(*request, encryptionKey());
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
    if (!passwordOK_OrRootInfo()) {
        handleRequestIfWrongPassword(*storageRoot);
        return;
    }

    const QJsonValue type = request->value(QStringLiteral("request_type"));
    if (type == QStringLiteral("search"))
        handleSearchRequest(*request);
    else if (type == QStringLiteral("preview"))
        handlePreviewRequest(*request);
    else if (type == QStringLiteral("thumb"))
        handleThumbRequest(*request);
    else if (type == QStringLiteral("copy_to_dropbox"))
        handleCopyToDropboxRequest(*request);
    else if (type == QStringLiteral("move_from_dropbox"))
        handleMoveFromDropboxRequest(*request);
    else if (type == QStringLiteral("info"))
        handleItemInfoRequest(*request);
    else
        qCWarning(lcEngine).noquote()
            << QStringLiteral("unknown request type found, %1").arg(describeType(type));

    request->insert(QStringLiteral("search_date"), vd_FileUtils::JSONDate(QDateTime::currentDateTimeUtc()));
    setTheRequest(request);
    postResultAndGetMoreRequests(request, *storageRoot, outRawData());
    setTheRequest(std::nullopt);
}

void vd_Searcher::runHandler(HandlerSlot slot, QJsonObject &request)
{
    Handler handler;
    {
        std::lock_guard lock(s_handlersLock);
        handler = s_handlers.at(size_t(slot));
    }
    if (handler)
        handler(*this, request);
}

void vd_Searcher::handleSearchRequest(QJsonObject &request)
{
    runHandler(HandlerSlot::Search, request);
}

void vd_Searcher::handlePreviewRequest(QJsonObject &request)
{
    runHandler(HandlerSlot::Preview, request);
}

void vd_Searcher::handleThumbRequest(QJsonObject &request)
{
    runHandler(HandlerSlot::Thumb, request);
}

void vd_Searcher::handleCopyToDropboxRequest(QJsonObject &request)
{
    runHandler(HandlerSlot::CopyToDropbox, request);
}

void vd_Searcher::handleMoveFromDropboxRequest(QJsonObject &request)
{
    runHandler(HandlerSlot::MoveFromDropbox, request);
}

void vd_Searcher::handleItemInfoRequest(QJsonObject &request)
{
    runHandler(HandlerSlot::ItemInfo, request);
}
