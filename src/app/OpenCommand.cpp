#include "app/OpenCommand.h"

#include "app/AppLog.h"
#include "app/ConsoleStreams.h"
#include "app/FileLinkHandler.h"
#include "app/FileManagerReveal.h"
#include "app/IndexCommand.h"
#include "app/InstanceChannel.h"
#include "metadata/MetadataIndex.h"

#include <QCoreApplication>
#include <QJsonArray>
#include <QThread>

#include <algorithm>
#include <memory>

namespace {

int reportAnswer(const QJsonObject &answer)
{
    if (answer.contains(QStringLiteral("error"))) {
        standardError() << "vandrel: " << answer.value(QStringLiteral("error")).toString() << "\n";
        return 1;
    }
    const QJsonArray declined = answer.value(QStringLiteral("declined")).toArray();
    for (const QJsonValue &text : declined)
        standardError() << "vandrel: not a link: " << text.toString() << "\n";
    return declined.isEmpty() ? 0 : 1;
}

// Resolves the URLs here, serving later hand-overs meanwhile, and returns once all are revealed.
int resolveAsInstance(InstanceChannel &channel, QStringList pending, FileLinkHandler &handler,
                      MetadataIndex &index)
{
    bool ready = false;
    auto quitWhenDone = [&] {
        if (ready && pending.isEmpty() && handler.resolver().runningResolutions() == 0)
            QCoreApplication::quit();
    };
    channel.setHandler([&](const QString &command, const QStringList &arguments) -> QJsonObject {
        if (command != u"open" || ready)
            return handler.answer(command, arguments);
        // The index is still loading: resolving now would search an empty index.
        QJsonArray declined;
        for (const QString &text : arguments) {
            if (const std::optional<QUrl> url = FileLinkHandler::linkSchemeUrl(text))
                pending << url->toString(QUrl::FullyEncoded);
            else
                declined << text;
        }
        return {{QStringLiteral("declined"), declined}};
    });
    const QMetaObject::Connection reporting =
        QObject::connect(&handler.resolver(), &LinkResolver::resolved, QCoreApplication::instance(),
                         [&](const QUrl &, const QString &path, qint64 elapsedMs) {
                             standardError() << (path.isEmpty() ? QStringLiteral("nothing found") : path)
                                             << " (resolved in " << elapsedMs << " ms)\n";
                             standardError().flush();
                             quitWhenDone();
                         });

    std::unique_ptr<QThread> updater(QThread::create([&index] {
        if (!index.updateNow())
            qCWarning(lcApp).noquote() << "the metadata index cannot be opened; links resolve to nothing";
    }));
    QObject::connect(updater.get(), &QThread::finished, QCoreApplication::instance(), [&] {
        ready = true;
        for (const QString &url : std::as_const(pending))
            handler.handleOpenURL(url);
        pending.clear();
        quitWhenDone();
    });
    updater->start();
    const int code = QCoreApplication::exec();
    updater->wait();
    // Both refer to this function's state; a hand-over that came in late is still revealed by the
    // resolver's own wait.
    QObject::disconnect(reporting);
    channel.setHandler([&handler](const QString &command, const QStringList &arguments) {
        return handler.answer(command, arguments);
    });
    return code;
}

} // namespace

int runOpenCommand(const QStringList &args)
{
    if (args.isEmpty()) {
        standardError() << "usage: vandrel open URL...\n";
        return 64;
    }
    QStringList urls;
    for (const QString &text : args) {
        if (const std::optional<QUrl> url = FileLinkHandler::linkSchemeUrl(text))
            urls << url->toString(QUrl::FullyEncoded);
        else
            standardError() << "vandrel: not a link: " << text << "\n";
    }
    if (urls.isEmpty())
        return 64;
    const int declined = args.size() == urls.size() ? 0 : 1;

    if (const std::optional<QJsonObject> answer = InstanceChannel::handOver(QStringLiteral("open"), urls))
        return std::max(declined, reportAnswer(*answer));

    MetadataConfig config = indexConfigFromSettings();
    // A short-lived resolver: the running agent watches and extracts, this process only catches up.
    config.watch = false;
    config.extract = false;
    MetadataIndex index(config);
    FileLinkHandler handler(index, !hasDisplay());
    InstanceChannel channel;
    if (!channel.listen()) {
        // Another instance started meanwhile.
        if (const std::optional<QJsonObject> answer = InstanceChannel::handOver(QStringLiteral("open"), urls))
            return std::max(declined, reportAnswer(*answer));
        qCWarning(lcApp).noquote() << "cannot listen on" << InstanceChannel::socketPath()
                                   << "; resolving without taking hand-overs";
    }
    return std::max(declined, resolveAsInstance(channel, urls, handler, index));
}
