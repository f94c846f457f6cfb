#include "platform/SecretStore.h"

#include "platform/FileSecretStore.h"
#include "platform/LibsecretSecretStore.h"
#include "platform/PlatformLog.h"

#include <mutex>

SecretStore &SecretStore::instance()
{
    static std::unique_ptr<SecretStore> store;
    static std::once_flag chosen;
    std::call_once(chosen, [] {
        if (qEnvironmentVariable("VANDREL_KEYCHAIN") == u"file") {
            store = std::make_unique<FileSecretStore>();
            return;
        }
        auto secretService = std::make_unique<LibsecretSecretStore>();
        const Outcome probe = secretService->probe();
        if (probe.status == Success) {
            store = std::move(secretService);
            return;
        }
        qCInfo(lcPlatform).noquote() << QStringLiteral(
                                            "Secret Service unavailable (%1); keeping secrets in %2")
                                            .arg(probe.message, FileSecretStore::defaultPath());
        store = std::make_unique<FileSecretStore>();
    });
    return *store;
}
