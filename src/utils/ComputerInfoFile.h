#pragma once

#include <QDateTime>
#include <QJsonObject>
#include <QString>

// This computer's info file in every StorageRoot, "data.vdldata/computers/<computer id>.json": the record
// by which the WebApp lists the user's computers. Before each write the folder is cleared of what
// synchronisation leaves behind (conflicted copies, computers gone quiet, a reinstalled computer's old file,
// copies of the WebApp's marker). Cleared items go to the user's trash; nothing is deleted. Runs where the
// agent's timers run; every call reads the folders afresh.
class ComputerInfoFile
{
public:
    // Forgets the deep search's cached StorageRoot, then rewrites the file in every StorageRoot, in order.
    static void updateComputerInfo();
    // Writes the file only into StorageRoots that lack it; where it exists, nothing at all happens.
    static void ensureComputerInfo();

    // One StorageRoot. With checkOnly, stops when the file exists. Otherwise clears the folders in a fixed
    // order (conflicted copies, old computer files, duplicate computer files, duplicate markers) and writes
    // the record, replacing this computer's earlier file. Costs one listing and a few small reads per step.
    static void writeComputerInfoFileTo(const QString &storageRoot, bool checkOnly,
                                        const QDateTime &now = QDateTime::currentDateTimeUtc());

    // Where this computer's file lies in the StorageRoot; creates nothing.
    static QString computerInfoFilePath(const QString &storageRoot);
    // The record as it is written at `now`; "pword_required" is present only when a password is set.
    static QJsonObject computerInfo(const QString &storageRoot, const QDateTime &now);

private:
    static void getRidOfConflictedCopyFiles(const QString &storageRoot);
    static void getRidOfOldComputerFiles(const QString &storageRoot, const QDateTime &now);
    static void getRidOfDuplicateComputerFiles(const QString &storageRoot);
    static void getRidOfDuplicateSessionsAreHereFiles(const QString &storageRoot);
};
