#include "support/SFHFKeychainUtils.h"

#include "platform/SecretStore.h"

namespace {

constexpr int kMissingArgument = -2000;
constexpr int kUnreadableItem = -1999;

SFHFKeychainUtils::Error makeError(int code, const QString &detail = QString())
{
    return {QStringLiteral("SFHFKeychainUtilsErrorDomain"), code, detail};
}

void report(std::optional<SFHFKeychainUtils::Error> *out,
            const std::optional<SFHFKeychainUtils::Error> &error)
{
    if (out)
        *out = error;
}

} // namespace

QString SFHFKeychainUtils::Error::description() const
{
    QString text =
        QStringLiteral("The operation couldn't be completed. (%1 error %2.)").arg(domain).arg(code);
    if (!detail.isEmpty())
        text += u' ' + detail;
    return text;
}

std::optional<QString> SFHFKeychainUtils::getPasswordForUsername(const QString &username,
                                                                 const QString &serviceName,
                                                                 std::optional<Error> *error)
{
    report(error, std::nullopt);
    if (username.isNull() || serviceName.isNull()) {
        report(error, makeError(kMissingArgument));
        return std::nullopt;
    }
    SecretStore &store = SecretStore::instance();
    const SecretStore::Outcome found = store.exists(serviceName, username);
    if (found.status == SecretStore::ItemNotFound)
        return std::nullopt;
    if (found.status != SecretStore::Success) {
        report(error, makeError(found.status, found.message));
        return std::nullopt;
    }
    QByteArray secret;
    const SecretStore::Outcome read = store.read(serviceName, username, &secret);
    if (read.status == SecretStore::ItemNotFound) {
        report(error, makeError(kUnreadableItem, read.message));
        return std::nullopt;
    }
    if (read.status != SecretStore::Success) {
        report(error, makeError(read.status, read.message));
        return std::nullopt;
    }
    return QString::fromUtf8(secret);
}

bool SFHFKeychainUtils::storeUsername(const QString &username, const QString &password,
                                      const QString &serviceName, bool updateExisting,
                                      std::optional<Error> *error)
{
    report(error, std::nullopt);
    if (username.isNull() || password.isNull() || serviceName.isNull()) {
        report(error, makeError(kMissingArgument));
        return false;
    }
    std::optional<Error> readError;
    const std::optional<QString> existing = getPasswordForUsername(username, serviceName, &readError);
    if (readError && readError->code == kUnreadableItem) {
        // A secret nobody can read is worthless: replace the item rather than fail for ever.
        readError.reset();
        deleteItemForUsername(username, serviceName, &readError);
    }
    if (readError) {
        report(error, readError);
        return false;
    }
    if (existing && (*existing == password || !updateExisting))
        return true;

    const SecretStore::Outcome written =
        SecretStore::instance().write(serviceName, serviceName, username, password.toUtf8());
    if (written.status != SecretStore::Success && error) {
        report(error, makeError(written.status, written.message));
        return false;
    }
    return true;
}

bool SFHFKeychainUtils::deleteItemForUsername(const QString &username, const QString &serviceName,
                                              std::optional<Error> *error)
{
    report(error, std::nullopt);
    if (username.isNull() || serviceName.isNull()) {
        report(error, makeError(kMissingArgument));
        return false;
    }
    const SecretStore::Outcome removed = SecretStore::instance().remove(serviceName, username);
    if (removed.status != SecretStore::Success) {
        report(error, makeError(removed.status, removed.message));
        return false;
    }
    return true;
}
