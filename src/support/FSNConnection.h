#pragma once

#include "support/FSNError.h"

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QPointer>
#include <QUrl>
#include <QVariant>
#include <QVariantMap>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

class QNetworkAccessManager;
class QNetworkReply;

enum class FSNRequestMethod { GET = 0, POST = 1 };

// "GET" or "POST"; none for a value outside the enumeration.
std::optional<QString> stringForRequestMethod(FSNRequestMethod method);

// Where a connection's transfer callbacks arrive. The switch was for systems too old to deliver them on
// a queue; every system we run on is current, so transfers always run on the "FSNConnection queue".
constexpr bool g_FSN_QUEUED_CONNECTIONS = true;

// What arrived of the HTTP response: the status line and headers of the final response after redirects.
struct FSNHttpResponse
{
    int statusCode = 0;
    QByteArray reasonPhrase;
    QList<std::pair<QByteArray, QByteArray>> headers;
    // The declared Content-Length, or -1 when the reply did not declare one.
    qint64 expectedContentLength = -1;
    QUrl url;
};

// One asynchronous HTTP request, used once. Make it with withUrl, then start it from any thread.
//
// The transfer and the parse block run on the "FSNConnection queue" thread; the completion and progress
// blocks run on the main thread, queued, never on the caller's stack. Each of the three blocks runs with
// the connection's block lock held (recursive: a block may cancel its own connection). A started
// connection ends in exactly one completion call, with error() set on failure, unless it is cancelled.
//
// The HTTP status is not treated as a failure: a 500 with a body delivers the body. Failures are transport
// errors (including the two limits below, reported as QNetworkReply::TimeoutError and
// QNetworkReply::UnknownContentError), a URL the connection cannot handle, and errors set by the parse.
//
// The connection keeps itself alive in the live set from start until its completion block has returned
// or it is cancelled.
class FSNConnection : public std::enable_shared_from_this<FSNConnection>
{
public:
    using Headers = QMap<QByteArray, QByteArray>;
    // Runs on the queue thread with the whole body; its value becomes parseResult(). Setting the error
    // fails the connection with it.
    using ParseBlock = std::function<QVariant(FSNConnection &, std::optional<FSNError> *error)>;
    using CompletionBlock = std::function<void(FSNConnection &)>;
    using ProgressBlock = std::function<void(FSNConnection &)>;

    // No request may take longer than this from start to its last byte; the transport's own time-out
    // only notices silence, which a relay dripping a byte at a time never gives.
    static constexpr std::chrono::milliseconds kDefaultDeadline{60'000};
    // A longer reply is aborted instead of being collected in memory.
    static constexpr qint64 kDefaultMaxResponseBytes = 32 * 1024 * 1024;

    // Parameter values are strings, numbers and lists of those (see FSNCategories.h), or FSNData for a
    // multipart POST. Caller headers are set last and so override Content-Type and Content-Length.
    static std::shared_ptr<FSNConnection> withUrl(const QUrl &url, FSNRequestMethod method, Headers headers,
                                                  QVariantMap parameters, ParseBlock parseBlock,
                                                  CompletionBlock completionBlock,
                                                  ProgressBlock progressBlock = {});

    // The parse block of the relay traffic: the body as a JSON object (a QJsonObject in the QVariant),
    // with the errors of dictionaryFromJSONWithError.
    static QVariant parseJSONDictionary(FSNConnection &connection, std::optional<FSNError> *error);

    // Limits for this connection; set them before start.
    void setDeadline(std::chrono::milliseconds deadline) { m_deadline = deadline; }
    void setMaxResponseBytes(qint64 bytes) { m_maxResponseBytes = bytes; }

    // Begins the request; callable from any thread. Returns this connection, or null when it failed at
    // once (a URL that is not http or https, or a connection queue that has stopped); the completion still
    // runs then, with a code-0 error of FSNConnectionErrorDomain. Needs a QCoreApplication: without one no
    // block ever runs. A second start does nothing and returns null.
    std::shared_ptr<FSNConnection> start();

    // Stops the transfer and removes the connection from the live set; no block runs after cancel
    // returns (one running on another thread is waited for). Callable from any thread, also from a block.
    void cancel();

    static void cancelAllConnections();
    // The live connections, in the order they started.
    static QList<std::shared_ptr<FSNConnection>> connections();

    const QUrl &url() const { return m_url; }
    FSNRequestMethod method() const { return m_method; }

    bool didStart() const { return m_didStart; }
    bool didFinishLoading() const { return m_didFinishLoading; }
    bool didComplete() const { return m_didComplete; }
    // Completed without an error.
    bool didSucceed() const { return m_didComplete && !m_error; }

    // The results below are written on the queue thread; read them in the parse block or, once complete,
    // on the main thread.
    const std::optional<FSNError> &error() const { return m_error; }
    const std::optional<FSNHttpResponse> &httpResponse() const { return m_response; }
    const QByteArray &responseData() const { return m_responseData; }
    const QVariant &parseResult() const { return m_parseResult; }

    // Progress figures are safe to read from any thread at any time. A fraction is -1 while the expected
    // count is unknown (below 1) or exceeded.
    float uploadProgress() const;
    float downloadProgress() const;
    qint64 uploadProgressBytes() const { return m_uploadProgressBytes; }
    qint64 uploadExpectedBytes() const { return m_uploadExpectedBytes; }
    qint64 downloadProgressBytes() const { return m_downloadProgressBytes; }

    // How many connections were live, this one included, right after it joined the live set.
    int concurrencyCountAtStart() const { return m_concurrencyCountAtStart; }
    // Seconds since 1970 at start; the intervals are seconds since then, 0 when the step did not happen.
    double startTime() const { return m_startTime; }
    double responseInterval() const { return m_responseInterval; }
    double finishOrFailInterval() const { return m_finishOrFailInterval; }
    double parseInterval() const { return m_parseInterval; }

private:
    FSNConnection(const QUrl &url, FSNRequestMethod method, Headers headers, QVariantMap parameters);

    // Queue thread.
    void begin(QNetworkAccessManager &manager);
    void onMetaData();
    void onReadyRead();
    void onFinished();
    void finishLoading();
    void parse();
    void fail(FSNError error);
    void failTransport(int code, const QString &description);
    void performComplete();
    void releaseReply();
    double sinceStart() const;
    // Main thread.
    void complete();
    void reportProgress();
    void scheduleReportProgress();
    // Any thread.
    void cleanup();
    void clearBlocks();
    void leaveLiveSet();

    const QUrl m_url;
    const FSNRequestMethod m_method;
    const Headers m_headers;
    const QVariantMap m_parameters;
    std::chrono::milliseconds m_deadline = kDefaultDeadline;
    qint64 m_maxResponseBytes = kDefaultMaxResponseBytes;

    std::recursive_mutex m_blocksLock;
    ParseBlock m_parseBlock;           // guarded by m_blocksLock
    CompletionBlock m_completionBlock; // guarded by m_blocksLock
    ProgressBlock m_progressBlock;     // guarded by m_blocksLock

    // Queue thread only.
    QPointer<QNetworkReply> m_reply;
    bool m_ended = false;

    std::optional<FSNError> m_error;
    std::optional<FSNHttpResponse> m_response;
    QByteArray m_responseData;
    QVariant m_parseResult;

    std::atomic<bool> m_didStart = false;
    std::atomic<bool> m_didFinishLoading = false;
    std::atomic<bool> m_didComplete = false;
    std::atomic<bool> m_cancelled = false;
    std::atomic<qint64> m_uploadProgressBytes = 0;
    std::atomic<qint64> m_uploadExpectedBytes = 0;
    std::atomic<qint64> m_downloadProgressBytes = 0;
    std::atomic<qint64> m_downloadExpectedBytes = -1;

    int m_concurrencyCountAtStart = 0;
    double m_startTime = 0;
    double m_responseInterval = 0;
    double m_finishOrFailInterval = 0;
    double m_parseInterval = 0;
};
