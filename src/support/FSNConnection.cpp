#include "support/FSNConnection.h"

#include "support/FSNCategories.h"
#include "support/FSNConnectionActivity.h"
#include "support/FSNConnectionQueue.h"
#include "support/FSNData.h"
#include "support/Logging.h"

#include <QCoreApplication>
#include <QDebug>
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

const QByteArray kBoundary = QByteArrayLiteral("--FSN-POST-boundary-wXzBVZAKUhpccuA9");

std::recursive_mutex gLiveLock;
std::vector<std::shared_ptr<FSNConnection>> gLive; // guarded by gLiveLock

struct BuiltRequest
{
    QNetworkRequest request;
    QByteArray body;
};

bool isFSNData(const QVariant &value)
{
    return value.metaType() == QMetaType::fromType<FSNData>();
}

QString debugText(const QVariant &value)
{
    QString text;
    QDebug(&text).nospace() << value;
    return text;
}

QByteArray multipartBody(const QVariantMap &parameters)
{
    QByteArray body;
    for (auto it = parameters.cbegin(); it != parameters.cend(); ++it) {
        const QVariant &value = it.value();
        const std::optional<FSNData> data =
            isFSNData(value) ? std::optional(value.value<FSNData>()) : std::nullopt;
        const std::optional<QString> text = data ? std::nullopt : parameterText(value);
        if (!data && !text) {
            qCWarning(lcSupport).noquote()
                << QStringLiteral(
                       "ERROR: %1: skipping bad POST parameter value: key: %2; value class: %3; value: %4")
                       .arg(QLatin1String(__func__), it.key(), QLatin1String(value.typeName()),
                            debugText(value));
            continue;
        }
        body += "--" + kBoundary + "\r\n";
        body += "Content-Disposition: form-data; name=\"" + it.key().toUtf8() + '"';
        if (data && data->fileName())
            body += "; filename=\"" + data->fileName()->toUtf8() + '"';
        body += "\r\n";
        if (data) {
            if (const std::optional<QString> mimeType = data->mimeTypeString())
                body += "Content-Type: " + mimeType->toUtf8() + "\r\n";
        }
        body += "\r\n";
        body += data ? data->data() : text->toUtf8();
        body += "\r\n";
    }
    body += "--" + kBoundary + "--\r\n\r\n";
    return body;
}

// None when the request cannot be sent at all: a method outside the enumeration or a URL that is not
// an absolute http or https address.
std::optional<BuiltRequest> makeNetworkRequest(const QUrl &url, FSNRequestMethod method,
                                               const FSNConnection::Headers &headers,
                                               const QVariantMap &parameters)
{
    const std::optional<QString> methodText = stringForRequestMethod(method);
    const QString scheme = url.scheme().toLower();
    if (!methodText || !url.isValid() || url.host().isEmpty() ||
        (scheme != QLatin1String("http") && scheme != QLatin1String("https")))
        return std::nullopt;

    QByteArray address = url.toEncoded();
    if (method == FSNRequestMethod::GET && !parameters.isEmpty())
        address += '?' + urlQueryString(parameters).toLatin1();
    BuiltRequest built{QNetworkRequest(QUrl::fromEncoded(address)), {}};
    built.request.setAttribute(QNetworkRequest::HttpPipeliningAllowedAttribute, true);

    if (method == FSNRequestMethod::POST) {
        if (std::any_of(parameters.cbegin(), parameters.cend(), isFSNData)) {
            built.body = multipartBody(parameters);
            built.request.setRawHeader("Content-Type", "multipart/form-data; boundary=" + kBoundary);
        } else {
            built.body = urlQueryString(parameters).toUtf8();
            built.request.setRawHeader("Content-Type", "application/x-www-form-urlencoded");
        }
        built.request.setRawHeader("Content-Length", QByteArray::number(built.body.size()));
    }
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

float fraction(qint64 progress, qint64 expected)
{
    if (expected < 1 || progress > expected)
        return -1;
    return float(double(progress) / double(expected));
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

std::optional<QString> stringForRequestMethod(FSNRequestMethod method)
{
    switch (method) {
    case FSNRequestMethod::GET:
        return QStringLiteral("GET");
    case FSNRequestMethod::POST:
        return QStringLiteral("POST");
    }
    return std::nullopt;
}

FSNConnection::FSNConnection(const QUrl &url, FSNRequestMethod method, Headers headers,
                             QVariantMap parameters)
    : m_url(url)
    , m_method(method)
    , m_headers(std::move(headers))
    , m_parameters(std::move(parameters))
{}

std::shared_ptr<FSNConnection> FSNConnection::withUrl(const QUrl &url, FSNRequestMethod method,
                                                      Headers headers, QVariantMap parameters,
                                                      ParseBlock parseBlock, CompletionBlock completionBlock,
                                                      ProgressBlock progressBlock)
{
    std::shared_ptr<FSNConnection> connection(
        new FSNConnection(url, method, std::move(headers), std::move(parameters)));
    connection->m_parseBlock = std::move(parseBlock);
    connection->m_completionBlock = std::move(completionBlock);
    connection->m_progressBlock = std::move(progressBlock);
    return connection;
}

QVariant FSNConnection::parseJSONDictionary(FSNConnection &connection, std::optional<FSNError> *error)
{
    std::optional<QJsonObject> dictionary = dictionaryFromJSONWithError(connection.responseData(), error);
    return dictionary ? QVariant(*dictionary) : QVariant();
}

std::shared_ptr<FSNConnection> FSNConnection::start()
{
    if (m_didStart.exchange(true))
        return nullptr;
    std::shared_ptr<FSNConnection> self = shared_from_this();
    m_startTime = posixTime();
    {
        std::lock_guard guard(gLiveLock);
        gLive.push_back(self);
        m_concurrencyCountAtStart = int(gLive.size());
        if (gLive.size() == 1)
            Q_EMIT FSNConnectionActivity::instance().FSNConnectionActivityBegan();
    }

    std::optional<BuiltRequest> built = makeNetworkRequest(m_url, m_method, m_headers, m_parameters);
    if (!built) {
        fail(FSNError{FSNConnectionErrorDomain, 0, QStringLiteral("request cannot be handled"), {}});
        return nullptr;
    }
    const bool queued =
        FSNConnectionQueue::post([self, built = std::move(*built)](QNetworkAccessManager &manager) {
            if (self->m_cancelled)
                return;
            QNetworkReply *reply = self->m_method == FSNRequestMethod::GET
                                       ? manager.get(built.request)
                                       : manager.post(built.request, built.body);
            self->m_reply = reply;
            // Without a bound the network thread reads a whole reply ahead of us, cap or no cap.
            reply->setReadBufferSize(std::min(self->m_maxResponseBytes, kReadBufferBytes) + 1);
            QObject::connect(reply, &QNetworkReply::metaDataChanged, reply, [self] {
                sendWithoutDelay();
                self->onMetaData();
            });
            QObject::connect(reply, &QNetworkReply::readyRead, reply, [self] { self->onReadyRead(); });
            QObject::connect(reply, &QNetworkReply::finished, reply, [self] { self->onFinished(); });
            QObject::connect(reply, &QNetworkReply::uploadProgress, reply, [self](qint64 sent, qint64 total) {
                self->m_uploadProgressBytes = sent;
                self->m_uploadExpectedBytes = total;
                self->scheduleReportProgress();
            });
            auto *deadline = new QTimer(reply);
            deadline->setSingleShot(true);
            QObject::connect(deadline, &QTimer::timeout, reply, [self] {
                if (!self->m_ended)
                    self->failTransport(
                        QNetworkReply::TimeoutError,
                        QStringLiteral("Reply not complete after %1 ms").arg(self->m_deadline.count()));
            });
            const auto waited = std::chrono::milliseconds(qint64(self->sinceStart() * 1000));
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
    response.reasonPhrase = m_reply->attribute(QNetworkRequest::HttpReasonPhraseAttribute).toByteArray();
    for (const auto &[name, value] : m_reply->rawHeaderPairs())
        response.headers.append({name, value});
    const QVariant length = m_reply->header(QNetworkRequest::ContentLengthHeader);
    response.expectedContentLength = length.isValid() ? length.toLongLong() : -1;
    response.url = m_reply->url();

    m_responseInterval = sinceStart();
    m_downloadExpectedBytes = response.expectedContentLength;
    m_downloadProgressBytes = 0;
    m_responseData.clear();
    m_response = std::move(response);
    if (m_response->expectedContentLength > m_maxResponseBytes)
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
    m_downloadProgressBytes = m_responseData.size();
    scheduleReportProgress();
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
    m_finishOrFailInterval = sinceStart();
    m_didFinishLoading = true;
    releaseReply();
    if (m_cancelled)
        return;
    bool hasParseBlock = false;
    {
        std::lock_guard guard(m_blocksLock);
        hasParseBlock = bool(m_parseBlock);
    }
    if (hasParseBlock)
        parse();
    else
        performComplete();
}

void FSNConnection::parse()
{
    Q_ASSERT_X(!onMainThread(), __func__, "must be called from a background thread");
    std::optional<FSNError> error;
    {
        std::lock_guard guard(m_blocksLock);
        // A copy, so that a block cancelling its own connection does not destroy itself while running.
        const ParseBlock block = m_parseBlock;
        if (!block)
            return;
        m_parseResult = block(*this, &error);
        m_parseInterval = sinceStart();
    }
    if (error)
        fail(std::move(*error));
    else
        performComplete();
}

void FSNConnection::failTransport(int code, const QString &description)
{
    m_finishOrFailInterval = sinceStart();
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

double FSNConnection::sinceStart() const
{
    return posixTime() - m_startTime;
}

void FSNConnection::complete()
{
    Q_ASSERT_X(onMainThread(), __func__, "must be called from the main thread");
    if (m_cancelled)
        return;
    m_didComplete = true;
    reportProgress();
    {
        std::lock_guard guard(m_blocksLock);
        const CompletionBlock block = m_completionBlock;
        if (block)
            block(*this);
    }
    cleanup();
}

void FSNConnection::reportProgress()
{
    Q_ASSERT_X(onMainThread(), __func__, "must be called from the main thread");
    std::lock_guard guard(m_blocksLock);
    const ProgressBlock block = m_progressBlock;
    if (block)
        block(*this);
}

void FSNConnection::scheduleReportProgress()
{
    if (QCoreApplication *application = QCoreApplication::instance()) {
        std::shared_ptr<FSNConnection> self = shared_from_this();
        QMetaObject::invokeMethod(
            application, [self] { self->reportProgress(); }, Qt::QueuedConnection);
    }
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
    for (const std::shared_ptr<FSNConnection> &connection : connections())
        connection->cancel();
}

QList<std::shared_ptr<FSNConnection>> FSNConnection::connections()
{
    std::lock_guard guard(gLiveLock);
    return QList<std::shared_ptr<FSNConnection>>(gLive.cbegin(), gLive.cend());
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
    m_progressBlock = nullptr;
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
    if (gLive.empty())
        Q_EMIT FSNConnectionActivity::instance().FSNConnectionActivityEnded();
}

float FSNConnection::uploadProgress() const
{
    return fraction(m_uploadProgressBytes, m_uploadExpectedBytes);
}

float FSNConnection::downloadProgress() const
{
    return fraction(m_downloadProgressBytes, m_downloadExpectedBytes);
}
