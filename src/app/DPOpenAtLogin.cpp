#include "app/DPOpenAtLogin.h"

#include "app/AppLog.h"

#include <QCoreApplication>

QString DPOpenAtLogin::programPath()
{
    return QCoreApplication::applicationFilePath();
}

bool DPOpenAtLogin::openAtLoginEnabled(const Autostart &list, const QString &path)
{
    return list.open() && list.hasEntryFor(path);
}

void DPOpenAtLogin::toggleLoginItem(const Autostart &list, const QString &path)
{
    if (!list.open()) {
        qCWarning(lcApp).noquote() << "the autostart folder" << list.folder() << "cannot be opened";
        return;
    }
    if (list.hasEntryFor(path))
        list.removeEntriesFor(path);
    else
        list.addEntry(path, {});
}
