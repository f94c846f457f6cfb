#pragma once

#include "handlers/FileOperations.h"

#include <QJsonObject>
#include <QString>

#include <optional>

// "copy_to_dropbox" and "move_from_dropbox": copying an item of the computer into the StorageRoot, from where
// the cloud service makes it downloadable, and moving an item out of the Dropbox folder into the computer.
// Failures are reported in the record's "error"; the record goes back as the result either way.
class TransferHandler
{
public:
    // Copies "path" into "dest_path" (default: this month's uploads folder of "vandrel_folder"). An identical
    // item already there counts as done; a different one is first renamed "<name> V<n>".
    static void handleCopyToDropboxRequest(QJsonObject &request,
                                           const FileOperations::InterruptionCheck &check = {});
    // Moves "path" out of the Dropbox folder into "dest_path" (default: this month's "From Dropbox" folder),
    // under a free name; refuses an item that, links and ".." resolved, lies outside the Dropbox folder, the
    // Dropbox folder itself and the folders it or this application needs.
    static void handleMoveFromDropboxRequest(QJsonObject &request,
                                             const FileOperations::InterruptionCheck &check = {});

    // False when the destination holds an item identical to the source (nothing to copy); true when the copy
    // should go ahead, after a different item there was renamed aside.
    static bool handleOldVersionsAtDestination(const QString &destination, const QString &source);
    // The refusal template (with one "%1" for the path) for a source that may not be moved, else none.
    // dropboxFolder is the Dropbox folder that holds the request's StorageRoot.
    static std::optional<QString> dropboxMoveSourceError(const QString &source, const QString &dropboxFolder);
    // The path when it is free, else "<base> (<n>).<ext>" with the first free n.
    static QString getPathThatsUnused(const QString &wished);
};
