#include "app/vd_PreferencesController.h"

#include "support/ls_Keychain.h"
#include "utils/vd_FileUtils.h"

void vd_PreferencesController::setPassword(const QString &password)
{
    ls_Keychain::setString(password.isNull() ? QStringLiteral("") : password,
                           vd_FileUtils::keyForComputerPassword());
    vd_FileUtils::updateComputerInfo();
}
