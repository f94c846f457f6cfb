#include "common/LogCapture.h"
#include "common/TempHome.h"
#include "platform/FileSecretStore.h"
#include "support/SFHFKeychainUtils.h"
#include "support/ls_Keychain.h"

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>
#include <sys/stat.h>

namespace {

// The file is replaced, never rewritten in place: a new inode means it was written again.
ino_t inode(const QString &path)
{
    struct stat info
    {};
    ::stat(QFile::encodeName(path).constData(), &info);
    return info.st_ino;
}

} // namespace

// The store is chosen once per process, so one case covers every use of the file store.
TEST(Keychain, StoreReadReplaceAndFailuresKeepTheirLogLinesAndQuirks)
{
    TempHome home;
    home.setEnvironment("VANDREL_KEYCHAIN", "file");
    const LogCapture log;
    const QString service = QStringLiteral("VandrelOSX");
    std::optional<SFHFKeychainUtils::Error> error;

    // An item without a readable secret (the only item so far): reading reports -1999, storing replaces it.
    const QString store = FileSecretStore::defaultPath();
    home.writeFile(QDir(home.path()).relativeFilePath(store), "{\"VandrelOSX\\nk\": {\"account\": \"k\"}}");
    ASSERT_EQ(::chmod(QFile::encodeName(store).constData(), 0600), 0);

    EXPECT_EQ(SFHFKeychainUtils::getPasswordForUsername(QStringLiteral("k"), service, &error), std::nullopt);
    ASSERT_TRUE(error.has_value());
    EXPECT_EQ(error->code, -1999);
    EXPECT_TRUE(SFHFKeychainUtils::storeUsername(QStringLiteral("k"), QStringLiteral("fresh"), service, true,
                                                 &error));
    EXPECT_FALSE(error.has_value());
    EXPECT_EQ(SFHFKeychainUtils::getPasswordForUsername(QStringLiteral("k"), service),
              QStringLiteral("fresh"));

    // Without update, an existing value stays.
    EXPECT_TRUE(SFHFKeychainUtils::storeUsername(QStringLiteral("k"), QStringLiteral("other"), service, false,
                                                 &error));
    EXPECT_EQ(SFHFKeychainUtils::getPasswordForUsername(QStringLiteral("k"), service),
              QStringLiteral("fresh"));

    EXPECT_FALSE(SFHFKeychainUtils::deleteItemForUsername(QString(), service, &error));
    EXPECT_EQ(error->code, -2000);

    LogCapture::lines.clear();
    EXPECT_EQ(ls_Keychain::stringForKey(QStringLiteral("computer_password_x")), std::nullopt);
    EXPECT_TRUE(LogCapture::lines.isEmpty()); // not found is no error

    ls_Keychain::setString(QStringLiteral("first"), QStringLiteral("computer_password_x"));
    EXPECT_EQ(ls_Keychain::stringForKey(QStringLiteral("computer_password_x")), QStringLiteral("first"));
    const ino_t written = inode(store);

    // The same value again changes nothing on disk; another value does.
    ls_Keychain::setString(QStringLiteral("first"), QStringLiteral("computer_password_x"));
    EXPECT_EQ(inode(store), written);

    ls_Keychain::setString(QStringLiteral("second"), QStringLiteral("computer_password_x"));
    EXPECT_NE(inode(store), written);
    EXPECT_EQ(ls_Keychain::stringForKey(QStringLiteral("computer_password_x")), QStringLiteral("second"));
    ls_Keychain::setString(QString(), QStringLiteral("computer_password_x")); // a missing value
    EXPECT_EQ(ls_Keychain::stringForKey(QStringLiteral("computer_password_x")), QStringLiteral("second"));

    ASSERT_EQ(LogCapture::lines.size(), 1);
    EXPECT_TRUE(LogCapture::lines[0].startsWith(QStringLiteral("error setting password ")));
    EXPECT_TRUE(LogCapture::lines[0].contains(QStringLiteral("SFHFKeychainUtilsErrorDomain error -2000")));

    // A store that cannot be written: the add fails, and only a caller without an error slot hears "true".
    home.setEnvironment("XDG_DATA_HOME",
                        QFile::encodeName(home.writeFile(QStringLiteral("blocker"), "file") + "/data"));
    EXPECT_FALSE(
        SFHFKeychainUtils::storeUsername(QStringLiteral("n"), QStringLiteral("v"), service, true, &error));
    EXPECT_EQ(error->code, int(SecretStore::StoreFailed));
    EXPECT_TRUE(SFHFKeychainUtils::storeUsername(QStringLiteral("n"), QStringLiteral("v"), service, true));
}
