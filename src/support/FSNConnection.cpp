#include "support/FSNConnection.h"

#include "support/FSNCategories.h"
#include "support/FSNConnectionQueue.h"

#include <QCoreApplication>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QThread>
#include <QTimer>

#include <dirent.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdlib>
#include <vector>

namespace {

constexpr qint64 kReadBufferBytes = 1024 * 1024;

std::recursive_mutex gLiveLock;
std::vector<std::shared_ptr<FSNConnection>> gLive; // guarded by gLiveLock

struct BuiltRequest
{
    QNetworkRequest request;
    QByteArray body;
};

// None when the request cannot be sent at all: a URL that is not an absolute http or https address.
std::optional<BuiltRequest> makeNetworkRequest(const QUrl &url, const FSNConnection::Headers &headers,
                                               const QVariantMap &parameters)
{
    const QString scheme = url.scheme().toLower();
    if (!url.isValid() || url.host().isEmpty() ||
        (scheme != QLatin1String("http") && scheme != QLatin1String("https")))
        return std::nullopt;
    BuiltRequest built{QNetworkRequest(url), urlQueryString(parameters).toUtf8()};
    built.request.setAttribute(QNetworkRequest::HttpPipeliningAllowedAttribute, true);
    built.request.setRawHeader("Content-Type", "application/x-www-form-urlencoded");
    built.request.setRawHeader("Content-Length", QByteArray::number(built.body.size()));
    for (auto it = headers.cbegin(); it != headers.cend(); ++it)
        built.request.setRawHeader(it.key(), it.value());
    return built;
}

// Qt reports an HTTP error status as a reply error; the connection delivers such replies as successes.
bool isHttpStatusError(QNetworkReply::NetworkError error)
{
    switch (error) {
    case QNetworkReply::ContentAccessDenied:
    case QNetworkReply::ContentOperationNotPermittedError:
    case QNetworkReply::ContentNotFoundError:
    case QNetworkReply::AuthenticationRequiredError:
    case QNetworkReply::ContentConflictError:
    case QNetworkReply::ContentGoneError:
    case QNetworkReply::UnknownContentError:
    case QNetworkReply::ProtocolInvalidOperationError:
    case QNetworkReply::ProxyAuthenticationRequiredError:
    case QNetworkReply::InternalServerError:
    case QNetworkReply::OperationNotImplementedError:
    case QNetworkReply::ServiceUnavailableError:
    case QNetworkReply::UnknownServerError:
        return true;
    default:
        return false;
    }
}

bool onMainThread()
{
    return QCoreApplication::instance() && QThread::currentThread() == QCoreApplication::instance()->thread();
}

// Qt's HTTP client leaves Nagle's algorithm on, so a body that leaves in several writes holds its last
// piece until the server acknowledges the first, which Linux delays by 40 ms: every answer above 16 KB
// took that long more. Qt keeps its connections to itself, so once a reply shows a connection is open
// the option is set on each TCP socket of the process; on any other it is as harmless.
void sendWithoutDelay()
{
    DIR *descriptors = opendir("/proc/self/fd");
    if (!descriptors)
        return;
    while (const dirent *entry = readdir(descriptors)) {
        const int fd = std::atoi(entry->d_name);
        int type = 0, family = 0;
        socklen_t length = sizeof type;
        if (fd <= 2 || fd == dirfd(descriptors) || getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length) != 0 ||
            type != SOCK_STREAM)
            continue;
        length = sizeof family;
        if (getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &family, &length) != 0 ||
            (family != AF_INET && family != AF_INET6))
            continue;
        const int on = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }
    closedir(descriptors);
}

} // namespace

FSNConnection::FSNConnection(const QUrl &url, Headers headers, QVariantMap parameters)
    : m_url(url)
    , m_headers(std::move(headers))
    , m_parameters(std::move(parameters))
{}

std::shared_ptr<FSNConnection> FSNConnection::withUrl(const QUrl &url, Headers headers,
                                                      QVariantMap parameters, ParseBlock parseBlock,
                                                      CompletionBlock completionBlock)
{
    std::shared_ptr<FSNConnection> connection(
        new FSNConnection(url, std::move(headers), std::move(parameters)));
    connection->m_parseBlock = std::move(parseBlock);
    connection->m_completionBlock = std::move(completionBlock);
    return connection;
}

std::shared_ptr<FSNConnection> FSNConnection::start()
{
    if (m_didStart.exchange(true))
        return nullptr;
    std::shared_ptr<FSNConnection> self = shared_from_this();
    m_startTime = std::chrono::steady_clock::now();
    {
        std::lock_guard guard(gLiveLock);
        gLive.push_back(self);
    }

    std::optional<BuiltRequest> built = makeNetworkRequest(m_url, m_headers, m_parameters);
    if (!built) {
        fail(FSNError{FSNConnectionErrorDomain, 0, QStringLiteral("request cannot be handled"), {}});
        return nullptr;
    }
    const bool queued =
        FSNConnectionQueue::post([self, built = std::move(*built)](QNetworkAccessManager &manager) {
            if (self->m_cancelled)
                return;
            QNetworkReply *reply = manager.post(built.request, built.body);
            self->m_reply = reply;
            // Without a bound the network thread reads a whole reply ahead of us, cap or no cap.
            reply->setReadBufferSize(std::min(self->m_maxResponseBytes, kReadBufferBytes) + 1);
            QObject::connect(reply, &QNetworkReply::metaDataChanged, reply, [self] {
                sendWithoutDelay();
                self->onMetaData();
            });
            QObject::connect(reply, &QNetworkReply::readyRead, reply, [self] { self->onReadyRead(); });
            QObject::connect(reply, &QNetworkReply::finished, reply, [self] { self->onFinished(); });
            auto *deadline = new QTimer(reply);
            deadline->setSingleShot(true);
            QObject::connect(deadline, &QTimer::timeout, reply, [self] {
                if (!self->m_ended)
                    self->failTransport(
                        QNetworkReply::TimeoutError,
                        QStringLiteral("Reply not complete after %1 ms").arg(self->m_deadline.count()));
            });
            const auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(
                std::chrono::steady_clock::now() - self->m_startTime);
            deadline->start(std::max(std::chrono::milliseconds(0), self->m_deadline - waited));
        });
    if (!queued) {
        fail(FSNError{FSNConnectionErrorDomain, 0, QStringLiteral("could not establish connection"), {}});
        return nullptr;
    }
    return self;
}

void FSNConnection::onMetaData()
{
    if (m_ended)
        return;
    FSNHttpResponse response;
    response.statusCode = m_reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt();
    const QVariant length = m_reply->header(QNetworkRequest::ContentLengthHeader);
    response.expectedContentLength = length.isValid() ? length.toLongLong() : -1;
    m_responseData.clear();
    m_response = response;
    if (response.expectedContentLength > m_maxResponseBytes)
        failTransport(QNetworkReply::UnknownContentError,
                      QStringLiteral("Reply larger than %1 bytes").arg(m_maxResponseBytes));
}

void FSNConnection::onReadyRead()
{
    if (m_ended)
        return;
    if (!m_response)
        onMetaData();
    if (m_ended)
        return;
    if (m_responseData.size() + m_reply->bytesAvailable() > m_maxResponseBytes) {
        failTransport(QNetworkReply::UnknownContentError,
                      QStringLiteral("Reply larger than %1 bytes").arg(m_maxResponseBytes));
        return;
    }
    m_responseData += m_reply->readAll();
}

void FSNConnection::onFinished()
{
    if (m_ended)
        return;
    if (m_reply->bytesAvailable() > 0)
        onReadyRead();
    if (m_ended)
        return;
    const QNetworkReply::NetworkError error = m_reply->error();
    const bool hasStatus = m_reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).isValid();
    if (error == QNetworkReply::NoError || (hasStatus && isHttpStatusError(error)))
        finishLoading();
    else
        failTransport(error, m_reply->errorString());
}

void FSNConnection::finishLoading()
{
    Q_ASSERT_X(!onMainThread(), __func__, "must be called from a background thread");
    releaseReply();
    if (m_cancelled)
        return;
    std::optional<FSNError> error;
    {
        std::lock_guard guard(m_blocksLock);
        // A copy, so that a block cancelling its own connection does not destroy itself while running.
        if (const ParseBlock block = m_parseBlock)
            block(*this, &error);
    }
    if (error)
        fail(std::move(*error));
    else
        performComplete();
}

void FSNConnection::failTransport(int code, const QString &description)
{
    releaseReply();
    fail(FSNError{FSNTransportErrorDomain, code, description, {}});
}

void FSNConnection::fail(FSNError error)
{
    m_error = std::move(error);
    performComplete();
}

void FSNConnection::performComplete()
{
    releaseReply();
    QCoreApplication *application = QCoreApplication::instance();
    if (!application) {
        cleanup();
        return;
    }
    std::shared_ptr<FSNConnection> self = shared_from_this();
    QMetaObject::invokeMethod(
        application, [self] { self->complete(); }, Qt::QueuedConnection);
}

void FSNConnection::releaseReply()
{
    m_ended = true;
    if (QNetworkReply *reply = m_reply.data()) {
        m_reply = nullptr;
        if (reply->isRunning())
            reply->abort();
        reply->deleteLater();
    }
}

void FSNConnection::complete()
{
    Q_ASSERT_X(onMainThread(), __func__, "must be called from the main thread");
    if (m_cancelled)
        return;
    {
        std::lock_guard guard(m_blocksLock);
        if (const CompletionBlock block = m_completionBlock)
            block(*this);
    }
    cleanup();
}

void FSNConnection::cancel()
{
    std::shared_ptr<FSNConnection> self = shared_from_this();
    m_cancelled = true;
    clearBlocks();
    if (m_didStart)
        FSNConnectionQueue::post([self](QNetworkAccessManager &) { self->releaseReply(); });
    leaveLiveSet();
}

void FSNConnection::cancelAllConnections()
{
    std::vector<std::shared_ptr<FSNConnection>> live;
    {
        std::lock_guard guard(gLiveLock);
        live = gLive;
    }
    for (const std::shared_ptr<FSNConnection> &connection : live)
        connection->cancel();
}

void FSNConnection::cleanup()
{
    clearBlocks();
    leaveLiveSet();
}

void FSNConnection::clearBlocks()
{
    std::lock_guard guard(m_blocksLock);
    m_parseBlock = nullptr;
    m_completionBlock = nullptr;
}

void FSNConnection::leaveLiveSet()
{
    std::shared_ptr<FSNConnection> removed;
    std::lock_guard guard(gLiveLock);
    const auto it = std::find(gLive.begin(), gLive.end(), shared_from_this());
    if (it == gLive.end())
        return;
    removed = std::move(*it);
    gLive.erase(it);
}
