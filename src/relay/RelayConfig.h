#pragma once

#include <QString>
#include <QStringList>

#include <chrono>
#include <cstddef>

// Everything vandrel-relay is told at start. The timings are members so tests can shorten them.
struct RelayConfig
{
    QString bindAddress = QStringLiteral("127.0.0.1");
    // 0 takes a free port.
    quint16 port = 8780;
    // Synced folders; the StorageRoot of each is "<folder>/Apps/vandrel". Browsers name them by index.
    QStringList cloudFolders;
    // Holds the access token.
    QString stateDir;
    // The WebApp's built files.
    QString webRoot;

    // How long a poll that finds nothing waiting is held open for a request to arrive. Polls come every
    // second, so holding about as long keeps one poll ready per StorageRoot without piling them up.
    std::chrono::milliseconds longPollHold{1000};
    // A browser session whose page has not said "alive" for this long is closed and its file deleted.
    std::chrono::milliseconds sessionStaleAfter{15000};
    // How often expired requests and stale sessions are looked for.
    std::chrono::milliseconds sweepInterval{250};
    // The marker's "date" is rewritten this often so agents keep finding the StorageRoot fresh.
    std::chrono::milliseconds markerRefresh{std::chrono::minutes(10)};
    // A connection must deliver a request head within this time, and may stay idle between requests as long.
    std::chrono::milliseconds readTimeout{30000};

    std::size_t apiBodyLimit = std::size_t(1) << 20;
    // Agent posts carry results, encrypted previews included.
    std::size_t agentBodyLimit = std::size_t(32) << 20;
    std::uint64_t uploadLimit = std::uint64_t(16) << 30;
    std::size_t maxWaitingPerComputer = 1000;
    // Requests handed to one poll at most; the rest go to the next.
    int maxRequestsPerReply = 50;
    int defaultLifetimeSeconds = 30;
    int maxLifetimeSeconds = 120;
    int maxLogins = 1000;
    int maxSessionsPerLogin = 16;
};
