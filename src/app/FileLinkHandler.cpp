#include "app/FileLinkHandler.h"

#include "app/AppLog.h"
#include "app/FileManagerReveal.h"
#include "platform/SettingsKeys.h"
#include "platform/UserDefaults.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QJsonArray>
#include <QMimeData>

FileLinkHandler::FileLinkHandler(const MetadataIndex &index, bool headless)
    : m_resolver(index, [headless](const QString &path) { revealInFileManager(path, headless); })
{}

QStringList FileLinkHandler::linksForFiles(const QStringList &paths)
{
    QStringList links;
    for (const QString &path : paths) {
        if (const std::optional<QUrl> link = qlk_Schema::qlkURLFor(path))
            links << link->toString(QUrl::FullyEncoded);
    }
    return links;
}

bool FileLinkHandler::putOnClipboard(const QStringList &links)
{
    auto *app = qobject_cast<QGuiApplication *>(QCoreApplication::instance());
    if (links.isEmpty() || !app || QGuiApplication::platformName() == u"offscreen")
        return false;
    QGuiApplication::clipboard()->setMimeData(clipboardContent(links));
    return true;
}

QMimeData *FileLinkHandler::clipboardContent(const QStringList &links)
{
    auto *data = new QMimeData;
    QList<QUrl> urls;
    for (const QString &link : links)
        urls << QUrl(link);
    data->setUrls(urls);
    data->setText(links.join(u'\n'));
    return data;
}

std::optional<QUrl> FileLinkHandler::linkSchemeUrl(const QString &text)
{
    if (qlk_Schema::isLinkSchemeUrl(text))
        return QUrl(text);
    const QUrl url(text, QUrl::StrictMode);
    if (url.scheme() != u"https" && url.scheme() != u"http")
        return std::nullopt;
    return qlk_Schema::schemeUrlForServiceLink(url, UserDefaults::stringValue(SettingsKeys::LinkServiceURL));
}

bool FileLinkHandler::handleOpenURL(const QString &text)
{
    if (!qlk_Schema::isLinkSchemeUrl(text))
        return false;
    m_resolver.findURL(QUrl(text));
    return true;
}

QJsonObject FileLinkHandler::answer(const QString &command, const QStringList &arguments)
{
    if (command == u"open") {
        QJsonArray declined;
        for (const QString &text : arguments) {
            const std::optional<QUrl> url = linkSchemeUrl(text);
            if (!url || !handleOpenURL(url->toString(QUrl::FullyEncoded)))
                declined << text;
        }
        return {{QStringLiteral("declined"), declined}};
    }
    if (command == u"link") {
        const QStringList links = linksForFiles(arguments);
        const bool onClipboard = putOnClipboard(links);
        return {{QStringLiteral("links"), QJsonArray::fromStringList(links)},
                {QStringLiteral("clipboard"), onClipboard}};
    }
    qCWarning(lcApp).noquote() << "handed-over command" << command << "unknown";
    return {{QStringLiteral("error"), QStringLiteral("unknown command")}};
}
