#pragma once

#include <QString>
#include <QStringList>

// What the index covers and where it keeps its store. The app fills it from the settings "IndexedRoots"
// and "IndexExcludes"; `defaults()` is the home folder plus the volumes the user mounted (under /media,
// /run/media and /mnt), never the system's own folders.
struct MetadataConfig
{
    QStringList roots;
    // Absolute paths (left out with everything below) or bare folder names (left out wherever they occur).
    QStringList excludes;
    QString storePath;
    bool lowPriority = true; // nice 19, SCHED_BATCH and the idle I/O class for the indexing thread
    bool watch = true;       // inotify; without it changes are seen by catch-up only
    bool extract = true;     // text, PDF, image, mail and office extraction after the names
    int extractorTimeoutMs = 15000;
    qint64 extractorMaxBytes = 4 * 1024 * 1024; // text read from one file
    int liveScanMaxEntries = 200000;            // bounds for scopes outside the indexed roots
    int liveScanMaxMs = 3000;

    static MetadataConfig defaults();
    // The mount points among `mountPoints` that are the user's own volumes: below /media, /run/media or
    // /mnt, in the order given.
    static QStringList userVolumes(const QStringList &mountPoints);
    static QString defaultStorePath(); // $XDG_CACHE_HOME/vandrel/index.db
};
