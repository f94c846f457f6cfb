#include "platform/SettingsKeys.h"

namespace SettingsKeys {

const std::vector<Setting> &all()
{
    static const std::vector<Setting> table = {
        {RunInDock, false, nullptr},
        {LaunchCount, 0, nullptr},
        {CheckedEnableOpenAtLoginOnInitialLaunch, false, nullptr},
        {LastBestPath, QVariant(), nullptr},
        {CloudFolders, QStringList(), "VANDREL_CLOUD_FOLDERS"},
        // No address is built in: a build for a given deployment sets them, and the agent says so when one
        // is missing rather than talking to a guessed host.
        {RelayServerURL, QString(), "VANDREL_RELAY_URL"},
        {WebAppURL, QString(), "VANDREL_WEBAPP_URL"},
        {WebSiteURL, QString(), nullptr},
        {SupportURL, QString(), nullptr},
        {LinkServiceURL, QString(), "VANDREL_LINK_SERVICE_URL"},
        {RelayRequestTimeout, 60, "VANDREL_RELAY_TIMEOUT"},
        {SecretStoreKind, QString(), nullptr},
        {IndexedRoots, QStringList(), nullptr},
        {IndexExcludes, QStringList(), nullptr},
    };
    return table;
}

} // namespace SettingsKeys
