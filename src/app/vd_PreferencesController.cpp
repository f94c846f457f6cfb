#include "app/vd_PreferencesController.h"

#include "platform/SecretStore.h"
#include "support/ls_Keychain.h"
#include "utils/vd_FileUtils.h"

void vd_PreferencesController::setPassword(const QString &password)
{
    // Setting the password is the one moment it may move to another store; every later read uses that one.
    SecretStore::chooseForNewSecret();
    ls_Keychain::setString(password.isNull() ? QStringLiteral("") : password,
                           vd_FileUtils::keyForComputerPassword());
    vd_FileUtils::updateComputerInfo();
}
