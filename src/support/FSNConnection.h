#pragma once

#include "support/FSNError.h"

#include <QByteArray>
#include <QMap>
#include <QPointer>
#include <QUrl>
#include <QVariantMap>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

class QNetworkAccessManager;
class QNetworkReply;

// What arrived of the HTTP response: the status line of the final response after redirects.
struct FSNHttpResponse
{
    int statusCode = 0;
    // The declared Content-Length, or -1 when the reply did not declare one.
    qint64 expectedContentLength = -1;
};

// One asynchronous HTTP POST of a form, used once. Make it with withUrl, then start it from any thread.
//
// The transfer and the parse block run on the "FSNConnection queue" thread; the completion block runs on
// the main thread, queued, never on the caller's stack. Each block runs with the connection's block lock
// held (recursive: a block may cancel its own connection). A started connection ends in exactly one
// completion call, with error() set on failure, unless it is cancelled.
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
    // Runs on the queue thread with the whole body. Setting the error fails the connection with it.
    using ParseBlock = std::function<void(FSNConnection &, std::optional<FSNError> *error)>;
    using CompletionBlock = std::function<void(FSNConnection &)>;

    // No request may take longer than this from start to its last byte; the transport's own time-out
    // only notices silence, which a relay dripping a byte at a time never gives.
    static constexpr std::chrono::milliseconds kDefaultDeadline{60'000};
    // A longer reply is aborted instead of being collected in memory.
    static constexpr qint64 kDefaultMaxResponseBytes = 32 * 1024 * 1024;

    // Parameter values are strings, numbers and lists of those (see FSNCategories.h), sent URL-encoded.
    // Caller headers are set last and so override Content-Type and Content-Length.
    static std::shared_ptr<FSNConnection> withUrl(const QUrl &url, Headers headers, QVariantMap parameters,
                                                  ParseBlock parseBlock, CompletionBlock completionBlock);

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
    // Cancels every live connection, for shutting down.
    static void cancelAllConnections();

    // The results below are written on the queue thread; read them in the parse block or, once complete,
    // on the main thread.
    const std::optional<FSNError> &error() const { return m_error; }
    const std::optional<FSNHttpResponse> &httpResponse() const { return m_response; }
    const QByteArray &responseData() const { return m_responseData; }

private:
    FSNConnection(const QUrl &url, Headers headers, QVariantMap parameters);

    // Queue thread.
    void onMetaData();
    void onReadyRead();
    void onFinished();
    void finishLoading();
    void fail(FSNError error);
    void failTransport(int code, const QString &description);
    void performComplete();
    void releaseReply();
    // Main thread.
    void complete();
    // Any thread.
    void cleanup();
    void clearBlocks();
    void leaveLiveSet();

    const QUrl m_url;
    const Headers m_headers;
    const QVariantMap m_parameters;
    std::chrono::milliseconds m_deadline = kDefaultDeadline;
    qint64 m_maxResponseBytes = kDefaultMaxResponseBytes;
    std::chrono::steady_clock::time_point m_startTime;

    std::recursive_mutex m_blocksLock;
    ParseBlock m_parseBlock;           // guarded by m_blocksLock
    CompletionBlock m_completionBlock; // guarded by m_blocksLock

    // Queue thread only.
    QPointer<QNetworkReply> m_reply;
    bool m_ended = false;

    std::optional<FSNError> m_error;
    std::optional<FSNHttpResponse> m_response;
    QByteArray m_responseData;

    std::atomic<bool> m_didStart = false;
    std::atomic<bool> m_cancelled = false;
};
