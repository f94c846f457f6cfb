#include "app/desktop/LinkDropTarget.h"

#include "app/AppLog.h"
#include "app/FileLinkHandler.h"

#include <QClipboard>
#include <QDropEvent>
#include <QGuiApplication>
#include <QMimeData>
#include <QWidget>

namespace {

QStringList localFiles(const QMimeData *data)
{
    QStringList paths;
    if (!data)
        return paths;
    for (const QUrl &url : data->urls()) {
        if (url.isLocalFile())
            paths << url.toLocalFile();
    }
    return paths;
}

} // namespace

LinkDropTarget::LinkDropTarget(QWidget *window)
    : QObject(window)
{
    window->setAcceptDrops(true);
    window->installEventFilter(this);
}

bool LinkDropTarget::eventFilter(QObject *watched, QEvent *event)
{
    switch (event->type()) {
    case QEvent::DragEnter:
    case QEvent::DragMove: {
        auto *drag = static_cast<QDropEvent *>(event);
        if (localFiles(drag->mimeData()).isEmpty())
            return false;
        drag->acceptProposedAction();
        return true;
    }
    case QEvent::Drop: {
        auto *drop = static_cast<QDropEvent *>(event);
        const QStringList paths = localFiles(drop->mimeData());
        if (paths.isEmpty())
            return false;
        drop->acceptProposedAction();
        // Each file is read whole for its checksum here, on the main thread, as the desktop expects the
        // links on the clipboard once the drop is over.
        const QStringList links = FileLinkHandler::linksForFiles(paths);
        if (links.isEmpty()) {
            qCInfo(lcApp).noquote()
                << "none of the dropped items exists any more; the clipboard is unchanged";
            return true;
        }
        QGuiApplication::clipboard()->setMimeData(FileLinkHandler::clipboardContent(links));
        qCInfo(lcApp).noquote() << links.size() << "file links put on the clipboard";
        return true;
    }
    default:
        return QObject::eventFilter(watched, event);
    }
}
