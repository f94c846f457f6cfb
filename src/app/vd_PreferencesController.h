#pragma once

#include <QString>

// The computer password's settings, shared by the preferences window and `vandrel password`.
class vd_PreferencesController
{
public:
    // Stores the password (the empty text means none) and rewrites every StorageRoot's computer info file at
    // once, so the WebApp learns whether a password is required. A running agent reads the keychain afresh
    // for each request and needs no restart.
    static void setPassword(const QString &password);
};
