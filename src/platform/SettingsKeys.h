#pragma once

#include <QVariant>

#include <vector>

// Every settings key the agent reads or writes, with its default. The key names are shared with the
// other platforms' agents and stay verbatim.
namespace SettingsKeys {

inline const QString RunInDock = QStringLiteral("KPRunInDock");
inline const QString LaunchCount = QStringLiteral("vn_launch_count");
inline const QString CheckedEnableOpenAtLoginOnInitialLaunch =
    QStringLiteral("CheckedEnableOpenAtLoginOnInitialLaunch");
// Followed by the platform id; made on first use.
inline const QString ComputerUUIDPrefix = QStringLiteral("ComputerUUID_");
inline const QString LastBestPath = QStringLiteral("lastBestPath");
// Synced folders of any kind (Syncthing, Nextcloud, a plain local folder) whose "Apps/vandrel" is a
// StorageRoot like a Dropbox folder's. A list; the environment variable separates folders with ":".
inline const QString CloudFolders = QStringLiteral("CloudFolders");

// Service addresses; each may be overridden by an environment variable (see Setting::environment).
inline const QString RelayServerURL = QStringLiteral("RelayServerURL");
inline const QString WebAppURL = QStringLiteral("WebAppURL");
inline const QString WebSiteURL = QStringLiteral("WebSiteURL");
inline const QString SupportURL = QStringLiteral("SupportURL");
inline const QString LinkServiceURL = QStringLiteral("LinkServiceURL");
// Seconds a relay request may take in all before it is abandoned, so a hung relay cannot pile up
// connections.
inline const QString RelayRequestTimeout = QStringLiteral("RelayRequestTimeout");

// Which secret store took the computer password: "file" or "secret-service"; empty until one did.
inline const QString SecretStoreKind = QStringLiteral("SecretStoreKind");

// The metadata index: folders to index and names to leave out (lists; empty means the built-in choice).
inline const QString IndexedRoots = QStringLiteral("IndexedRoots");
inline const QString IndexExcludes = QStringLiteral("IndexExcludes");

struct Setting
{
    QString key;
    // Answers reads while nothing is stored; never written to the file.
    QVariant defaultValue;
    // An environment variable whose value, when set, wins over the stored one.
    const char *environment;
};

// The table: one row per key.
const std::vector<Setting> &all();

} // namespace SettingsKeys
