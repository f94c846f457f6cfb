#pragma once

#include "TempHome.h"

#include <QDateTime>

// A temporary home laid out as a Dropbox user's: the Dropbox folder holding the "Apps/vandrel" StorageRoot
// with its marker, and the computer password kept in the file store. Sessions and the password are added by
// the test.
class DropboxHome : public TempHome
{
public:
    DropboxHome();

    // <home>/Dropbox/Apps/vandrel
    QString root() const;
    // Writes a fresh session file named after the id into the StorageRoot, or another one.
    QString addSession(const QString &id, const QString &storageRoot = {}) const;
    // Stores the computer password as `vandrel password set` does; "" for none (a null text is refused).
    void setPassword(const QString &password) const;
};

// Writes a StorageRoot marker dated ageSeconds before `now` into the app folder (relative to the home).
void writeMarker(const TempHome &home, const QString &appFolder, double ageSeconds,
                 const QDateTime &now = QDateTime::currentDateTimeUtc());
