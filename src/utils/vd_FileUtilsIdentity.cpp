#include "platform/SettingsKeys.h"
#include "platform/SystemIdentity.h"
#include "platform/UserDefaults.h"
#include "support/Encodings.h"
#include "utils/UtilsLog.h"
#include "utils/vd_FileUtils.h"
#include "utils/vd_SimpleUtils.h"

#include <QCoreApplication>

#include <openssl/err.h>
#include <openssl/rand.h>

#include <mutex>

namespace {

std::mutex s_computerIdLock; // guards making the computer id: its check, creation and store

QString platformUUID()
{
    if (const std::optional<QString> id = SystemIdentity::machineId())
        return *id;
    qCWarning(lcUtils) << "failed to get UUID, using computer name";
    return vd_SimpleUtils::computerName();
}

QString appVersion()
{
    const QString version = QCoreApplication::applicationVersion();
    if (!version.isEmpty() && version.size() <= 20)
        return version;
    return QStringLiteral(VANDREL_VERSION);
}

} // namespace

QByteArray vd_FileUtils::randomDataOfLength(quint32 length)
{
    QByteArray bytes(qsizetype(length), '\0');
    if (length > 0 && RAND_bytes(reinterpret_cast<unsigned char *>(bytes.data()), int(length)) != 1) {
        qCCritical(lcUtils).noquote()
            << QStringLiteral("Unable to generate random bytes: %1").arg(qulonglong(ERR_get_error()));
        qCCritical(lcUtils) << "did not make random string";
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
    static const QString id = platformUUID();
    return id;
}

QString vd_FileUtils::prefsKeyForComputerID()
{
    return SettingsKeys::ComputerUUIDPrefix + getPlatformUUID();
}

QString vd_FileUtils::keyForComputerPassword()
{
    return QStringLiteral("computer_password_") + getPlatformUUID();
}

QString vd_FileUtils::getComputerUUID()
{
    const QString key = prefsKeyForComputerID();
    const QString stored = UserDefaults::stringValue(key);
    if (!stored.isEmpty())
        return stored;
    {
        const std::lock_guard guard(s_computerIdLock);
        if (UserDefaults::stringValue(key).isEmpty())
            UserDefaults::setValue(key, randomURLSafeString());
    }
    return UserDefaults::stringValue(key);
}

QString vd_FileUtils::getAppVersionString()
{
    static const QString version = appVersion();
    return version;
}
