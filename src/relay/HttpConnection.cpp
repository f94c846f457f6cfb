#include "relay/HttpConnection.h"

#include "relay/LinkPage.h"
#include "relay/RelayEnvelope.h"
#include "relay/RelayLog.h"
#include "relay/RelayServer.h"

#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QUrl>
#include <QUrlQuery>

#include <fcntl.h>
#include <unistd.h>

#include <boost/beast/core/file.hpp>
#include <charconv>
#include <cmath>

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = beast::http;

namespace {

// Results are JSON a few megabytes long at most; anything that inflates beyond this is refused.
constexpr qsizetype kMaxInflatedResult = 128 << 20;
constexpr qsizetype kMaxInflatedSessions = 1 << 20;
constexpr qsizetype kMaxComputerIdLength = 200;

QByteArray toBytes(std::string_view text)
{
    return QByteArray(text.data(), qsizetype(text.size()));
}

std::pair<QString, QString> splitTarget(std::string_view target)
{
    const QByteArray bytes = toBytes(target);
    const qsizetype question = bytes.indexOf('?');
    const QByteArray path = question < 0 ? bytes : bytes.left(question);
    const QByteArray query = question < 0 ? QByteArray() : bytes.mid(question + 1);
    return {QString::fromUtf8(QByteArray::fromPercentEncoding(path)), QString::fromUtf8(query)};
}

// application/x-www-form-urlencoded, as the agent writes it.
QMap<QByteArray, QByteArray> parseForm(const QByteArray &body)
{
    QMap<QByteArray, QByteArray> form;
    for (const QByteArray &pair : body.split('&')) {
        const qsizetype equals = pair.indexOf('=');
        if (equals <= 0)
            continue;
        QByteArray name = pair.left(equals);
        QByteArray value = pair.mid(equals + 1);
        name.replace('+', ' ');
        value.replace('+', ' ');
        form.insert(QByteArray::fromPercentEncoding(name), QByteArray::fromPercentEncoding(value));
    }
    return form;
}

bool isBase64Url(const QByteArray &text)
{
    return std::all_of(text.begin(), text.end(), [](char c) {
        return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
               c == '_' || c == '=';
    });
}

QByteArray compactJson(const QJsonObject &object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

std::optional<QJsonObject> jsonObject(const std::string &body)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(toBytes(body), &error);
    if (error.error != QJsonParseError::NoError || !document.isObject())
        return std::nullopt;
    return document.object();
}

const char *contentTypeFor(const QString &fileName)
{
    static const std::pair<const char *, const char *> types[] = {
        {"html", "text/html; charset=utf-8"},
        {"js", "text/javascript; charset=utf-8"},
        {"mjs", "text/javascript; charset=utf-8"},
        {"css", "text/css; charset=utf-8"},
        {"json", "application/json"},
        {"svg", "image/svg+xml"},
        {"png", "image/png"},
        {"jpg", "image/jpeg"},
        {"ico", "image/x-icon"},
        {"woff2", "font/woff2"},
        {"webmanifest", "application/manifest+json"},
        {"txt", "text/plain; charset=utf-8"},
    };
    const QString suffix = QFileInfo(fileName).suffix().toLower();
    for (const auto &[extension, type] : types) {
        if (suffix == QLatin1String(extension))
            return type;
    }
    return "application/octet-stream";
}

QByteArray contentDisposition(const QString &fileName)
{
    QByteArray ascii;
    for (const QChar c : fileName)
        ascii.append(c.unicode() >= 0x20 && c.unicode() < 0x7f && c != u'"' && c != u'\\' ? char(c.unicode())
                                                                                          : '_');
    return "attachment; filename=\"" + ascii + "\"; filename*=UTF-8''" +
           fileName.toUtf8().toPercentEncoding();
}

bool isHttpError(const beast::error_code &error)
{
    return error.category() == http::make_error_code(http::error::bad_target).category();
}

} // namespace

HttpConnection::HttpConnection(asio::ip::tcp::socket socket, RelayServer &server)
    : m_stream(std::move(socket))
    , m_server(server)
    , m_holdTimer(m_stream.get_executor())
{}

void HttpConnection::start()
{
    readHead();
}

void HttpConnection::readHead()
{
    m_bodyParser.reset();
    m_uploadParser.reset();
    m_headParser.emplace();
    m_headParser->header_limit(16 * 1024);
    // The route sets the body's limit once the head is read.
    m_headParser->body_limit(boost::none);
    m_stream.expires_after(m_server.config().readTimeout);
    http::async_read_header(
        m_stream, m_buffer, *m_headParser, [self = shared_from_this()](beast::error_code error, std::size_t) {
            if (!error)
                return self->onHead();
            self->m_keepAlive = false;
            if (error == http::error::header_limit)
                return self->replyError(431, "header_too_large",
                                        QStringLiteral("The request head is too large."));
            if (isHttpError(error) && error != http::error::end_of_stream &&
                error != http::error::partial_message)
                return self->replyError(400, "bad_http", QStringLiteral("The request is not valid HTTP."));
            self->close();
        });
}

void HttpConnection::onHead()
{
    const auto &head = m_headParser->get();
    m_version = head.version();
    m_keepAlive = head.keep_alive();
    const QString path = splitTarget(head.target()).first;
    if (head.method() == http::verb::post && path == QStringLiteral("/api/upload"))
        return startUpload();
    const bool agent = path == QStringLiteral("/result") || path == QStringLiteral("/result_encrypted");
    const std::size_t limit = agent ? m_server.config().agentBodyLimit : m_server.config().apiBodyLimit;
    if (tooLarge(limit))
        return;
    readBody(limit);
}

bool HttpConnection::tooLarge(std::uint64_t limit)
{
    // A declared length is checked here; a chunked body is checked by the body's parser as it arrives. The
    // parser has validated the field already; it is read as text because GCC's sanitizer builds warn,
    // wrongly, about the optional that the parser's own accessor returns.
    const auto field = m_headParser->get()[http::field::content_length];
    std::uint64_t length = 0;
    if (field.empty() ||
        std::from_chars(field.data(), field.data() + field.size(), length).ec != std::errc() ||
        length <= limit)
        return false;
    m_keepAlive = false;
    replyError(413, "too_large", QStringLiteral("The request body is larger than allowed."));
    return true;
}

void HttpConnection::readBody(std::size_t limit)
{
    m_bodyParser.emplace(std::move(*m_headParser));
    m_bodyParser->body_limit(limit);
    http::async_read(
        m_stream, m_buffer, *m_bodyParser, [self = shared_from_this()](beast::error_code error, std::size_t) {
            if (!error) {
                self->m_stream.expires_never();
                return self->onRequest(self->m_bodyParser->get());
            }
            self->m_keepAlive = false;
            if (error == http::error::body_limit)
                return self->replyError(413, "too_large",
                                        QStringLiteral("The request body is larger than allowed."));
            if (isHttpError(error) && error != http::error::end_of_stream &&
                error != http::error::partial_message)
                return self->replyError(400, "bad_http", QStringLiteral("The request is not valid HTTP."));
            self->close();
        });
}

void HttpConnection::onRequest(const StringRequest &request)
{
    const QString path = splitTarget(request.target()).first;
    if (path == QStringLiteral("/result") || path == QStringLiteral("/result_encrypted")) {
        if (request.method() != http::verb::post)
            return replyError(405, "method_not_allowed", QStringLiteral("Agents post their polls."));
        return handleAgentPost(request);
    }
    if (path.startsWith(QStringLiteral("/api/")))
        return handleApi(request, path);
    if (request.method() != http::verb::get)
        return replyError(405, "method_not_allowed", QStringLiteral("Only GET reaches the WebApp's files."));
    if (request.target().starts_with("/l/"))
        return serveLinkPage(request.target());
    serveStatic(path);
}

void HttpConnection::handleAgentPost(const StringRequest &request)
{
    const QMap<QByteArray, QByteArray> form = parseForm(toBytes(request.body()));
    const QString computerId = QString::fromUtf8(form.value("computer_id"));
    if (computerId.isEmpty() || computerId.size() > kMaxComputerIdLength)
        return replyError(400, "bad_computer_id", QStringLiteral("The poll has no usable \"computer_id\"."));
    if (form.contains("os_sessions")) {
        const auto sessions = unpackRelayEnvelope(form.value("os_sessions"), kMaxInflatedSessions);
        if (!sessions || !sessions->isArray())
            return replyError(400, "bad_sessions",
                              QStringLiteral("\"os_sessions\" is not a packed JSON array."));
    }
    RequestQueues &queues = m_server.queues();
    bool carriedResult = false;
    if (form.contains("result")) {
        const auto result = unpackRelayEnvelope(form.value("result"), kMaxInflatedResult);
        if (!result || !result->isObject())
            return replyError(400, "bad_result", QStringLiteral("\"result\" is not a packed JSON object."));
        carriedResult = true;
        const QString ticket = result->object().value(QStringLiteral("relay_ticket")).toString();
        queues.deliver(computerId, ticket, compactJson({{QStringLiteral("result"), result->object()}}));
    } else if (form.contains("result_encrypted")) {
        const QByteArray encrypted = form.value("result_encrypted");
        if (!isBase64Url(encrypted))
            return replyError(400, "bad_result",
                              QStringLiteral("\"result_encrypted\" is not URL-safe base64."));
        carriedResult = true;
        queues.deliver(computerId, QString::fromUtf8(form.value("cache_key")),
                       compactJson({{QStringLiteral("result_encrypted"), QString::fromLatin1(encrypted)}}));
    }
    const QJsonArray requests = queues.take(computerId);
    const auto hold = m_server.config().longPollHold;
    // A post that carries a result is answered at once: the agent's next result must not queue behind it.
    if (!requests.isEmpty() || carriedResult || hold.count() <= 0)
        return replyRequests(requests);
    const quint64 pollId = queues.holdPoll(computerId, [self = shared_from_this()](QJsonArray arrived) {
        if (!self->m_heldPoll)
            return;
        self->m_heldPoll.reset();
        self->m_holdTimer.cancel();
        self->replyRequests(arrived);
    });
    m_heldPoll = std::make_pair(computerId, pollId);
    m_holdTimer.expires_after(hold);
    m_holdTimer.async_wait([self = shared_from_this()](beast::error_code) {
        if (!self->m_heldPoll)
            return;
        const auto [heldComputer, heldId] = *self->m_heldPoll;
        self->m_heldPoll.reset();
        self->m_server.queues().releasePoll(heldComputer, heldId);
        self->replyRequests({});
    });
}

void HttpConnection::handleApi(const StringRequest &request, const QString &path)
{
    const bool post = request.method() == http::verb::post;
    if (post && !sameOrigin(request))
        return replyError(403, "cross_origin", QStringLiteral("The call came from another site."));
    if (path == QStringLiteral("/api/login")) {
        if (!post)
            return replyError(405, "method_not_allowed", QStringLiteral("Log in with POST."));
        const std::optional<QJsonObject> body = jsonObject(request.body());
        if (!body || !body->value(QStringLiteral("token")).isString())
            return replyError(400, "bad_json",
                              QStringLiteral("The body must be a JSON object with a \"token\" text."));
        std::optional<QString> ended;
        const std::optional<QString> cookie =
            m_server.logins().login(body->value(QStringLiteral("token")).toString().toUtf8(), &ended);
        if (!cookie) {
            qCInfo(lcRelay).noquote() << "a login with a wrong access token was refused";
            return replyError(401, "bad_token", QStringLiteral("The access token is wrong."));
        }
        if (ended)
            m_server.sessions().closeLogin(*ended);
        return replyJson(200, {{QStringLiteral("ok"), true}}, BrowserLogins::setCookieHeader(*cookie));
    }
    const QString login = loginOf(request);
    if (!m_server.logins().isLoggedIn(login))
        return replyError(
            401, "login_required",
            QStringLiteral("Log in first: open the address with the token that the relay printed."));

    const auto now = RequestQueues::Clock::now();
    if (path == QStringLiteral("/api/logout") && post) {
        m_server.sessions().closeLogin(login);
        m_server.logins().logout(login);
        return replyJson(200, {{QStringLiteral("ok"), true}}, BrowserLogins::clearCookieHeader());
    }
    if (path == QStringLiteral("/api/session") && post)
        return replyJson(200, {{QStringLiteral("os_session"), m_server.sessions().open(login, now)}});
    if (path.startsWith(QStringLiteral("/api/session/")) && post) {
        const QStringList parts = path.mid(13).split(u'/');
        if (parts.size() == 2 && parts[1] == QStringLiteral("alive") &&
            m_server.sessions().alive(login, parts[0], now))
            return replyJson(200, {{QStringLiteral("ok"), true}});
        if (parts.size() == 2 && parts[1] == QStringLiteral("close") &&
            m_server.sessions().close(login, parts[0]))
            return replyJson(200, {{QStringLiteral("ok"), true}});
        return replyError(404, "no_session", QStringLiteral("This login has no such session."));
    }
    if (path == QStringLiteral("/api/computers") && request.method() == http::verb::get)
        return replyJson(200, {{QStringLiteral("computers"), m_server.cloudFolders().computers()}});
    if (path == QStringLiteral("/api/request") && post)
        return handleBrowserRequest(request);
    if (path == QStringLiteral("/api/download") && request.method() == http::verb::get)
        return handleDownload(QString::fromUtf8(toBytes(request.target())));
    replyError(404, "not_found", QStringLiteral("No such call, or not with this method."));
}

void HttpConnection::handleBrowserRequest(const StringRequest &request)
{
    const std::optional<QJsonObject> body = jsonObject(request.body());
    if (!body)
        return replyError(400, "bad_json", QStringLiteral("The body is not a JSON object."));
    const QJsonValue computerValue = body->value(QStringLiteral("computer_id"));
    const QString computerId = computerValue.toString();
    if (!computerValue.isString() || computerId.isEmpty() || computerId.size() > kMaxComputerIdLength)
        return replyError(400, "bad_computer_id",
                          QStringLiteral("\"computer_id\" must be a short, non-empty text."));
    if (!body->value(QStringLiteral("request")).isObject())
        return replyError(400, "bad_request", QStringLiteral("\"request\" must be a JSON object."));
    QJsonObject record = body->value(QStringLiteral("request")).toObject();
    const RelayConfig &config = m_server.config();
    double lifetime = config.defaultLifetimeSeconds;
    if (record.contains(QStringLiteral("lifetime"))) {
        const QJsonValue value = record.value(QStringLiteral("lifetime"));
        lifetime = value.toDouble(-1);
        if (!value.isDouble() || !std::isfinite(lifetime) || lifetime <= 0)
            return replyError(400, "bad_lifetime",
                              QStringLiteral("\"lifetime\" must be a positive number of seconds."));
        lifetime = std::min(lifetime, double(config.maxLifetimeSeconds));
        record.insert(QStringLiteral("lifetime"), lifetime);
    }
    const auto deadline =
        RequestQueues::Clock::now() +
        std::chrono::duration_cast<RequestQueues::Clock::duration>(std::chrono::duration<double>(lifetime));
    const std::optional<QString> ticket = m_server.queues().enqueue(
        computerId, std::move(record), deadline,
        [self = shared_from_this()](std::optional<QByteArray> answer) {
            if (!answer)
                return self->replyError(504, "timeout",
                                        QStringLiteral("The computer did not answer in time."));
            StringResponse response(http::status::ok, self->m_version);
            response.set(http::field::content_type, "application/json");
            response.set(http::field::cache_control, "no-store");
            response.body() = answer->toStdString();
            response.keep_alive(self->m_keepAlive);
            response.prepare_payload();
            self->sendString(std::move(response));
        });
    if (!ticket)
        replyError(429, "queue_full",
                   QStringLiteral("Too many requests are already waiting for this computer."));
}

void HttpConnection::handleDownload(const QString &target)
{
    const QUrlQuery query(target.mid(target.indexOf(u'?') + 1));
    bool cloudOk = false;
    const int cloud = query.queryItemValue(QStringLiteral("cloud")).toInt(&cloudOk);
    const QString path = query.queryItemValue(QStringLiteral("path"), QUrl::FullyDecoded);
    if (!cloudOk || target.indexOf(u'?') < 0)
        return replyError(400, "bad_request", QStringLiteral("A download needs \"cloud\" and \"path\"."));
    auto opened = m_server.cloudFolders().openForDownload(cloud, path);
    if (const auto *failure = std::get_if<CloudFolders::Failure>(&opened))
        return replyError(failure->status, failure->code, failure->message);
    const auto &file = std::get<CloudFolders::OpenedFile>(opened);
    auto response = std::make_shared<http::response<http::file_body>>(http::status::ok, m_version);
    beast::file body;
    body.native_handle(file.fd);
    beast::error_code error;
    response->body().reset(std::move(body), error);
    if (error)
        return replyError(500, "storage_error", QStringLiteral("The file could not be read."));
    response->set(http::field::content_type, "application/octet-stream");
    response->set(http::field::content_disposition, contentDisposition(file.fileName).toStdString());
    response->set(http::field::cache_control, "no-store");
    response->set("X-Content-Type-Options", "nosniff");
    response->keep_alive(m_keepAlive);
    response->prepare_payload();
    send(std::move(response));
}

void HttpConnection::serveStatic(const QString &path)
{
    const QString relative = path == QStringLiteral("/") ? QStringLiteral("index.html") : path.mid(1);
    const QString webRoot = m_server.config().webRoot;
    const std::optional<QString> file =
        webRoot.isEmpty() ? std::nullopt : CloudFolders::resolveInside(webRoot, relative);
    if (!file)
        return replyError(404, "not_found", QStringLiteral("No such page."));
    const int fd = ::open(QFile::encodeName(*file).constData(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0)
        return replyError(404, "not_found", QStringLiteral("No such page."));
    auto response = std::make_shared<http::response<http::file_body>>(http::status::ok, m_version);
    beast::file body;
    body.native_handle(fd);
    beast::error_code error;
    response->body().reset(std::move(body), error);
    if (error)
        return replyError(500, "storage_error", QStringLiteral("The page could not be read."));
    response->set(http::field::content_type, contentTypeFor(*file));
    response->set(http::field::cache_control, "no-cache");
    response->set("X-Content-Type-Options", "nosniff");
    response->set("X-Frame-Options", "DENY");
    response->set("Referrer-Policy", "no-referrer");
    response->set("Content-Security-Policy",
                  "default-src 'self'; img-src 'self' blob: data:; style-src 'self' 'unsafe-inline'; "
                  "object-src 'none'; frame-ancestors 'none'; base-uri 'none'");
    response->keep_alive(m_keepAlive);
    response->prepare_payload();
    send(std::move(response));
}

void HttpConnection::serveLinkPage(std::string_view target)
{
    // The link is read from the address as sent, still encoded, so that an encoded slash stays inside its
    // name.
    std::string_view link = target.substr(0, target.find('?'));
    link.remove_prefix(3);
    const LinkPage::Reply page = LinkPage::render(link);
    StringResponse response(http::status(page.status), m_version);
    response.set(http::field::content_type, "text/html; charset=utf-8");
    response.set(http::field::cache_control, "no-store");
    response.set("X-Content-Type-Options", "nosniff");
    response.set("X-Frame-Options", "DENY");
    response.set("Referrer-Policy", "no-referrer");
    response.set("Content-Security-Policy", LinkPage::kContentSecurityPolicy);
    response.body() = page.html.toStdString();
    response.keep_alive(m_keepAlive);
    response.prepare_payload();
    sendString(std::move(response));
}

void HttpConnection::startUpload()
{
    const auto &head = m_headParser->get();
    m_keepAlive = false;
    if (!sameOrigin(head))
        return replyError(403, "cross_origin", QStringLiteral("The call came from another site."));
    if (!m_server.logins().isLoggedIn(loginOf(head)))
        return replyError(
            401, "login_required",
            QStringLiteral("Log in first: open the address with the token that the relay printed."));
    const QString target = QString::fromUtf8(toBytes(head.target()));
    const QUrlQuery query(target.mid(target.indexOf(u'?') + 1));
    bool cloudOk = false;
    m_uploadCloud = query.queryItemValue(QStringLiteral("cloud")).toInt(&cloudOk);
    m_uploadName = query.queryItemValue(QStringLiteral("name"), QUrl::FullyDecoded);
    if (!cloudOk)
        return replyError(400, "bad_request", QStringLiteral("An upload needs \"cloud\" and \"name\"."));
    if (tooLarge(m_server.config().uploadLimit))
        return;
    auto created = m_server.cloudFolders().createUpload(m_uploadCloud, m_uploadName);
    if (const auto *failure = std::get_if<CloudFolders::Failure>(&created))
        return replyError(failure->status, failure->code, failure->message);
    const auto &upload = std::get<CloudFolders::UploadTarget>(created);
    m_uploadPath = upload.temporaryPath;
    m_keepAlive = head.keep_alive();
    m_uploadParser.emplace(std::move(*m_headParser));
    m_uploadParser->body_limit(m_server.config().uploadLimit);
    beast::file file;
    file.native_handle(upload.fd);
    beast::error_code error;
    m_uploadParser->get().body().reset(std::move(file), error);
    // Large bodies may take long on a slow line, but a sender may not stall forever.
    const auto length = m_uploadParser->content_length();
    const auto allowance =
        length ? std::chrono::milliseconds(*length / 64) : std::chrono::milliseconds(std::chrono::hours(1));
    m_stream.expires_after(m_server.config().readTimeout + allowance);
    http::async_read(m_stream, m_buffer, *m_uploadParser,
                     [self = shared_from_this()](beast::error_code readError, std::size_t) {
                         self->onUploadRead(readError);
                     });
}

void HttpConnection::onUploadRead(beast::error_code error)
{
    auto &file = m_uploadParser->get().body().file();
    beast::error_code ignored;
    const bool synced = !error && ::fsync(file.native_handle()) == 0;
    file.close(ignored);
    if (error || !synced) {
        QFile::remove(m_uploadPath);
        m_keepAlive = false;
        if (error == http::error::body_limit)
            return replyError(413, "too_large", QStringLiteral("The upload is larger than allowed."));
        if (!error || (isHttpError(error) && error != http::error::end_of_stream &&
                       error != http::error::partial_message))
            return replyError(error ? 400 : 500, error ? "bad_http" : "storage_error",
                              error ? QStringLiteral("The upload is not valid HTTP.")
                                    : QStringLiteral("The upload could not be stored."));
        return close();
    }
    m_stream.expires_never();
    const std::optional<QString> relative =
        m_server.cloudFolders().finishUpload(m_uploadCloud, m_uploadPath, m_uploadName);
    if (!relative)
        return replyError(500, "storage_error", QStringLiteral("The upload could not be given a free name."));
    replyJson(200, {{QStringLiteral("relative_path"), *relative}});
}

QString HttpConnection::loginOf(const http::fields &fields) const
{
    return BrowserLogins::cookieFromHeader(toBytes(fields[http::field::cookie]));
}

bool HttpConnection::sameOrigin(const http::fields &fields) const
{
    const QByteArray origin = toBytes(fields[http::field::origin]);
    if (origin.isEmpty())
        return true;
    const QByteArray host = toBytes(fields[http::field::host]);
    return !host.isEmpty() && (origin == "http://" + host || origin == "https://" + host);
}

void HttpConnection::replyJson(int status, const QJsonObject &body, QByteArray setCookie)
{
    StringResponse response(http::status(status), m_version);
    response.set(http::field::content_type, "application/json");
    response.set(http::field::cache_control, "no-store");
    if (!setCookie.isEmpty())
        response.set(http::field::set_cookie, setCookie.toStdString());
    response.body() = compactJson(body).toStdString();
    response.keep_alive(m_keepAlive);
    response.prepare_payload();
    sendString(std::move(response));
}

void HttpConnection::replyError(int status, const QByteArray &code, const QString &message)
{
    replyJson(status,
              {{QStringLiteral("error"), QString::fromLatin1(code)}, {QStringLiteral("message"), message}});
}

void HttpConnection::replyRequests(const QJsonArray &requests)
{
    replyJson(200, {{QStringLiteral("requests"), requests}});
}

void HttpConnection::sendString(StringResponse &&response)
{
    send(std::make_shared<StringResponse>(std::move(response)));
}

template<class Response> void HttpConnection::send(std::shared_ptr<Response> response)
{
    m_stream.expires_after(m_server.config().readTimeout);
    if constexpr (std::is_same_v<typename Response::body_type, http::file_body>)
        m_stream.expires_never();
    http::async_write(m_stream, *response,
                      [self = shared_from_this(), response](beast::error_code error, std::size_t) {
                          if (error || !response->keep_alive())
                              return self->close();
                          self->readHead();
                      });
}

void HttpConnection::close()
{
    beast::error_code ignored;
    m_stream.socket().shutdown(asio::ip::tcp::socket::shutdown_send, ignored);
    // Reading on for a moment lets a client that is still sending see the answer: closing with unread
    // data would reset the connection and could discard it.
    m_stream.expires_after(std::chrono::seconds(2));
    drain();
}

void HttpConnection::drain()
{
    m_stream.async_read_some(asio::buffer(m_drainBuffer),
                             [self = shared_from_this()](beast::error_code error, std::size_t) {
                                 if (!error)
                                     self->drain();
                             });
}
