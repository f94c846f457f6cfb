#include "platform/SecretStore.h"

#include "platform/FileSecretStore.h"
#include "platform/LibsecretSecretStore.h"
#include "platform/PlatformLog.h"
#include "platform/SettingsKeys.h"
#include "platform/UserDefaults.h"

#include <atomic>
#include <mutex>

namespace {

const QString kFileKind = QStringLiteral("file");
const QString kSecretServiceKind = QStringLiteral("secret-service");

// Both stores live as long as the process, so a reference handed out stays valid after a new choice.
FileSecretStore &fileStore()
{
    static auto *store = new FileSecretStore;
    return *store;
}

LibsecretSecretStore &secretServiceStore()
{
    static auto *store = new LibsecretSecretStore;
    return *store;
}

std::atomic<SecretStore *> s_current{nullptr};
std::mutex s_choiceLock; // serialises choosing, not using, the store

SecretStore &probedStore()
{
    if (qEnvironmentVariable("VANDREL_KEYCHAIN") == kFileKind)
        return fileStore();
    const SecretStore::Outcome probe = secretServiceStore().probe();
    if (probe.status == SecretStore::Success)
        return secretServiceStore();
    qCInfo(lcPlatform).noquote() << QStringLiteral("Secret Service unavailable (%1); keeping secrets in %2")
                                        .arg(probe.message, FileSecretStore::defaultPath());
    return fileStore();
}

} // namespace

SecretStore &SecretStore::instance()
{
    if (SecretStore *current = s_current.load())
        return *current;
    const std::lock_guard lock(s_choiceLock);
    if (SecretStore *current = s_current.load())
        return *current;
    const QString remembered = UserDefaults::stringValue(SettingsKeys::SecretStoreKind);
    SecretStore *chosen = nullptr;
    if (qEnvironmentVariable("VANDREL_KEYCHAIN") == kFileKind || remembered == kFileKind)
        chosen = &fileStore();
    else if (remembered == kSecretServiceKind)
        chosen = &secretServiceStore();
    else
        chosen = &probedStore();
    s_current.store(chosen);
    return *chosen;
}

SecretStore &SecretStore::chooseForNewSecret()
{
    const std::lock_guard lock(s_choiceLock);
    SecretStore &chosen = probedStore();
    UserDefaults::setValue(SettingsKeys::SecretStoreKind,
                           &chosen == &fileStore() ? kFileKind : kSecretServiceKind);
    s_current.store(&chosen);
    return chosen;
}

QString SecretStore::instanceKind()
{
    return &instance() == &fileStore() ? kFileKind : kSecretServiceKind;
}
