#include "platform/SettingsKeys.h"
#include "platform/SystemIdentity.h"
#include "platform/UserDefaults.h"
#include "support/Encodings.h"
#include "support/ls_Keychain.h"
#include "utils/UtilsLog.h"
#include "utils/vd_FileUtils.h"
#include "utils/vd_SimpleUtils.h"

#include <openssl/err.h>
#include <openssl/rand.h>

#include <mutex>

namespace {

std::mutex s_computerIdLock; // guards making the computer id in the user defaults

} // namespace

QByteArray vd_FileUtils::randomDataOfLength(quint32 length)
{
    QByteArray bytes(qsizetype(length), '\0');
    if (RAND_bytes(reinterpret_cast<unsigned char *>(bytes.data()), int(length)) != 1) {
        qCCritical(lcUtils).noquote()
            << QStringLiteral("Unable to generate random bytes: %1").arg(ERR_get_error());
        qCWarning(lcUtils).noquote() << "did not make random string";
        bytes.fill('\0');
    }
    return bytes;
}

QString vd_FileUtils::randomURLSafeString()
{
    return base64Encoding_URL_SAFE(randomDataOfLength(24));
}

QString vd_FileUtils::getPlatformUUID()
{
    static const QString platformId = [] {
        const QString id = SystemIdentity::machineId();
        if (!id.isEmpty())
            return id;
        qCWarning(lcUtils).noquote() << "failed to get UUID, using computer name";
        return vd_SimpleUtils::computerName();
    }();
    return platformId;
}

QString vd_FileUtils::prefsKeyForComputerID()
{
    return SettingsKeys::ComputerUUIDPrefix + getPlatformUUID();
}

QString vd_FileUtils::keyForComputerPassword()
{
    return QStringLiteral("computer_password_") + getPlatformUUID();
}

std::optional<bool> vd_FileUtils::computerPasswordIsSet(QString *failure)
{
    const ls_Keychain::Read read = ls_Keychain::readStringForKey(keyForComputerPassword());
    if (read.failure) {
        if (failure)
            *failure = *read.failure;
        return std::nullopt;
    }
    return !read.value.value_or(QString()).isEmpty();
}

QString vd_FileUtils::getComputerUUID()
{
    const QString key = prefsKeyForComputerID();
    QString id = UserDefaults::stringValue(key);
    if (!id.isEmpty())
        return id;
    {
        const std::lock_guard guard(s_computerIdLock);
        if (UserDefaults::stringValue(key).isEmpty())
            UserDefaults::setValue(key, randomURLSafeString());
    }
    return UserDefaults::stringValue(key);
}

QString vd_FileUtils::appVersionString(const QString &shortVersion, const QString &buildVersion)
{
    return !shortVersion.isEmpty() && shortVersion.size() <= 20 ? shortVersion : buildVersion;
}

QString vd_FileUtils::getAppVersionString()
{
    static const QString version =
        appVersionString(QStringLiteral(VANDREL_VERSION), QStringLiteral(VANDREL_BUILD_VERSION));
    return version;
}
