#include "app/FileManagerReveal.h"

#include "app/AppLog.h"
#include "app/ConsoleStreams.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QFileInfo>
#include <QProcess>
#include <QUrl>

namespace {

void openParentFolder(const QString &path)
{
    const QString parent = QFileInfo(path).absolutePath();
    if (!QProcess::startDetached(QStringLiteral("xdg-open"), {parent}))
        qCWarning(lcApp).noquote() << "cannot open the folder" << parent << "with xdg-open";
}

} // namespace

bool hasDisplay()
{
    return !qEnvironmentVariableIsEmpty("DISPLAY") || !qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY");
}

void revealInFileManager(const QString &path, bool headless)
{
    if (headless || !hasDisplay()) {
        standardOutput() << path << "\n";
        standardOutput().flush();
        return;
    }
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (!bus.isConnected()) {
        openParentFolder(path);
        return;
    }
    QDBusMessage call = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("/org/freedesktop/FileManager1"),
        QStringLiteral("org.freedesktop.FileManager1"), QStringLiteral("ShowItems"));
    call << QStringList{QUrl::fromLocalFile(path).toString(QUrl::FullyEncoded)} << QString();
    // Waited for, briefly: a short-lived `vandrel open` must not exit before the file manager has the call.
    const QDBusMessage reply = bus.call(call, QDBus::Block, 3000);
    if (reply.type() == QDBusMessage::ErrorMessage) {
        qCInfo(lcApp).noquote() << "no file manager answers on D-Bus:" << reply.errorMessage();
        openParentFolder(path);
    }
}
