#include "support/ls_Keychain.h"

#include "support/Logging.h"
#include "support/SFHFKeychainUtils.h"

namespace {

const QString kServiceName = QStringLiteral("VandrelOSX");

} // namespace

void ls_Keychain::setString(const QString &value, const QString &key)
{
    std::optional<SFHFKeychainUtils::Error> error;
    SFHFKeychainUtils::storeUsername(key, value, kServiceName, true, &error);
    if (error)
        qCWarning(lcSupport).noquote()
            << QStringLiteral("error setting password %1").arg(error->description());
}

std::optional<QString> ls_Keychain::stringForKey(const QString &key)
{
    std::optional<SFHFKeychainUtils::Error> error;
    std::optional<QString> value = SFHFKeychainUtils::getPasswordForUsername(key, kServiceName, &error);
    if (error)
        qCWarning(lcSupport).noquote()
            << QStringLiteral("error getting password %1").arg(error->description());
    return value;
}

ls_Keychain::Read ls_Keychain::readStringForKey(const QString &key)
{
    std::optional<SFHFKeychainUtils::Error> error;
    Read read;
    read.value = SFHFKeychainUtils::getPasswordForUsername(key, kServiceName, &error);
    if (error)
        read.failure = error->description();
    return read;
}
