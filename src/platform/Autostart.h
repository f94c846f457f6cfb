#pragma once

#include <QString>
#include <QStringList>

// The user's session start-up list: the XDG autostart folder ($XDG_CONFIG_HOME/autostart), one `.desktop`
// file per program the session starts at login. An entry belongs to a program when the program path of its
// Exec line, resolved (PATH lookup, symbolic links), begins with that program's path. Entries switched off
// with Hidden=true or X-GNOME-Autostart-enabled=false start nothing and are not counted as present.
class Autostart
{
public:
    // The folder of the current environment.
    Autostart();
    explicit Autostart(QString folder);

    QString folder() const { return m_folder; }

    // Whether the folder exists or can be made; when not, the list cannot be opened and nothing changes.
    bool open() const;

    // Whether an active entry exists whose program path begins with `programPath`. Entries that cannot be
    // read or resolved are skipped.
    bool hasEntryFor(const QString &programPath) const;

    // Adds an entry that starts `programPath` with `arguments`, under the first free name among
    // "vandrel.desktop", "vandrel-2.desktop"…: an existing file is never overwritten. Answers the new
    // file's path, or an empty string (with a log line) when it could not be written.
    QString addEntry(const QString &programPath, const QStringList &arguments) const;

    // Removes every entry, active or not, whose program path begins with `programPath`. Answers how many
    // were removed.
    int removeEntriesFor(const QString &programPath) const;

    // The program path of a desktop file's Exec line, resolved, or an empty string when the file cannot be
    // read, has no Exec line in its [Desktop Entry] group, or names a program that does not exist.
    static QString resolvedProgram(const QString &desktopFile);

    // An Exec value that starts `programPath` with `arguments`, quoted where the desktop entry rules ask.
    static QString execLine(const QString &programPath, const QStringList &arguments);

private:
    QStringList entryFiles() const;

    QString m_folder;
};
