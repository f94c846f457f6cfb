#include "PrivateKeyring.h"
#include "common/TempHome.h"
#include "platform/FileSecretStore.h"
#include "platform/LibsecretSecretStore.h"

#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>

#include <gtest/gtest.h>
#include <libsecret/secret.h>
#include <sys/stat.h>

namespace {

const QString kService = QStringLiteral("VandrelOSX");
const QString kAccount = QStringLiteral("computer_password_test");

mode_t modeOf(const QString &path)
{
    struct stat info;
    return ::stat(QFile::encodeName(path).constData(), &info) == 0 ? (info.st_mode & 0777) : 0;
}

// Locks the default keyring as a screen locker would; unlocking it again would take a prompt.
bool lockDefaultKeyring()
{
    SecretService *service = secret_service_get_sync(SECRET_SERVICE_NONE, nullptr, nullptr);
    SecretCollection *collection =
        service ? secret_collection_for_alias_sync(service, SECRET_COLLECTION_DEFAULT, SECRET_COLLECTION_NONE,
                                                   nullptr, nullptr)
                : nullptr;
    GList *objects = collection ? g_list_append(nullptr, collection) : nullptr;
    const gint locked = objects ? secret_service_lock_sync(service, objects, nullptr, nullptr, nullptr) : 0;
    g_list_free(objects);
    if (collection)
        g_object_unref(collection);
    if (service)
        g_object_unref(service);
    return locked == 1;
}

// The round trip every back end must pass.
void exerciseStore(SecretStore &store)
{
    QByteArray secret;
    EXPECT_EQ(store.exists(kService, kAccount).status, SecretStore::ItemNotFound);
    EXPECT_EQ(store.read(kService, kAccount, &secret).status, SecretStore::ItemNotFound);
    EXPECT_EQ(store.remove(kService, kAccount).status, SecretStore::ItemNotFound);

    ASSERT_EQ(store.write(kService, kService, kAccount, "s\xc3\xa9 cret").status, SecretStore::Success);
    EXPECT_EQ(store.exists(kService, kAccount).status, SecretStore::Success);
    EXPECT_EQ(store.exists(QStringLiteral("OtherService"), kAccount).status, SecretStore::ItemNotFound);
    ASSERT_EQ(store.read(kService, kAccount, &secret).status, SecretStore::Success);
    EXPECT_EQ(secret, QByteArray("s\xc3\xa9 cret"));

    ASSERT_EQ(store.write(kService, kService, kAccount, "second").status, SecretStore::Success);
    ASSERT_EQ(store.read(kService, kAccount, &secret).status, SecretStore::Success);
    EXPECT_EQ(secret, QByteArray("second"));

    EXPECT_EQ(store.remove(kService, kAccount).status, SecretStore::Success);
    EXPECT_EQ(store.exists(kService, kAccount).status, SecretStore::ItemNotFound);
}

} // namespace

TEST(SecretStore, FileStoreIsPrivateAndRefusesFilesOthersCanRead)
{
    TempHome home;
    FileSecretStore store;
    exerciseStore(store);

    const QString path = FileSecretStore::defaultPath();
    EXPECT_EQ(path, home.filePath(QStringLiteral(".local/share/vandrel/keychain.json")));
    EXPECT_EQ(modeOf(path), 0600u);
    EXPECT_EQ(modeOf(QFileInfo(path).absolutePath()), 0700u);

    ASSERT_EQ(store.write(kService, kService, kAccount, "kept").status, SecretStore::Success);
    ASSERT_EQ(::chmod(QFile::encodeName(path).constData(), 0644), 0);
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QByteArray before = file.readAll();
    file.close();
    QByteArray secret;
    EXPECT_EQ(store.read(kService, kAccount, &secret).status, SecretStore::StoreFailed);
    EXPECT_EQ(store.write(kService, kService, kAccount, "new").status, SecretStore::StoreFailed);
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    EXPECT_EQ(file.readAll(), before); // refused, never replaced
}

TEST(SecretStore, RealGnomeKeyringRoundTripAndLockedKeyring)
{
    TempHome home;
    PrivateKeyring keyring(PrivateKeyring::Service::GnomeKeyring);
    if (!keyring.problem().isEmpty())
        GTEST_SKIP() << keyring.problem().toStdString();
    LibsecretSecretStore store;
    EXPECT_EQ(store.probe().status, SecretStore::Success);
    exerciseStore(store);

    // A locked item is neither missing nor empty: reading or removing it is refused and it stays.
    ASSERT_EQ(store.write(kService, kService, kAccount, "kept").status, SecretStore::Success);
    ASSERT_TRUE(lockDefaultKeyring());
    QByteArray secret;
    EXPECT_EQ(store.probe().status, SecretStore::Locked);
    EXPECT_EQ(store.exists(kService, kAccount).status, SecretStore::Success);
    EXPECT_EQ(store.read(kService, kAccount, &secret).status, SecretStore::Locked);
    EXPECT_TRUE(secret.isEmpty());
    EXPECT_EQ(store.remove(kService, kAccount).status, SecretStore::Locked);
    EXPECT_EQ(store.exists(kService, kAccount).status, SecretStore::Success);
}

TEST(SecretStore, KeyringWithoutDefaultCollectionLeavesSecretsToTheFile)
{
    TempHome home;
    PrivateKeyring keyring(PrivateKeyring::Service::GnomeKeyringWithoutLogin);
    if (!keyring.problem().isEmpty())
        GTEST_SKIP() << keyring.problem().toStdString();
    // Such a daemon answers searches but fails every store: it must not be chosen.
    LibsecretSecretStore secretService;
    EXPECT_EQ(secretService.probe().status, SecretStore::NotAvailable);

    SecretStore &chosen = SecretStore::instance();
    ASSERT_NE(dynamic_cast<FileSecretStore *>(&chosen), nullptr);
    EXPECT_EQ(chosen.write(kService, kService, kAccount, "v").status, SecretStore::Success);
    EXPECT_TRUE(QFileInfo::exists(FileSecretStore::defaultPath()));
}

TEST(SecretStore, UnansweredSecretServiceFallsBackToTheFileWithinSeconds)
{
    TempHome home;
    PrivateKeyring keyring(PrivateKeyring::Service::Hanging);
    if (!keyring.problem().isEmpty())
        GTEST_SKIP() << keyring.problem().toStdString();
    LibsecretSecretStore store(std::chrono::milliseconds(1500));
    QElapsedTimer timer;
    timer.start();
    const SecretStore::Outcome outcome = store.probe();
    EXPECT_EQ(outcome.status, SecretStore::NotAvailable) << outcome.message.toStdString();
    EXPECT_LT(timer.elapsed(), 4000);

    // The process's own choice, with its default deadline, instead of D-Bus's 25 s.
    timer.restart();
    SecretStore &chosen = SecretStore::instance();
    EXPECT_LT(timer.elapsed(), 5000);
    ASSERT_NE(dynamic_cast<FileSecretStore *>(&chosen), nullptr);
    EXPECT_EQ(chosen.write(kService, kService, kAccount, "v").status, SecretStore::Success);
    EXPECT_TRUE(QFileInfo::exists(FileSecretStore::defaultPath()));
}
