#include "platform/FileSecretStore.h"

#include "platform/PlatformLog.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QSaveFile>
#include <QStandardPaths>

#include <sys/stat.h>

namespace {

// Items are stored under "service\naccount": neither part can hold a line break that matters here, and one
// flat object keeps the file easy to inspect by hand.
QString itemKey(const QString &service, const QString &account)
{
    return service + u'\n' + account;
}

} // namespace

FileSecretStore::FileSecretStore(QString path)
    : m_path(std::move(path))
{}

QString FileSecretStore::defaultPath()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) +
           QStringLiteral("/vandrel/keychain.json");
}

QString FileSecretStore::path() const
{
    return m_path.isEmpty() ? defaultPath() : m_path;
}

SecretStore::Outcome FileSecretStore::load(QJsonObject *items) const
{
    const QString file = path();
    struct stat info;
    if (::stat(QFile::encodeName(file).constData(), &info) != 0)
        return {}; // no file yet: no items
    if (info.st_mode & (S_IRWXG | S_IRWXO)) {
        const QString message = QStringLiteral("refusing to use %1: other users can access it (mode %2); "
                                               "run chmod 600 on it")
                                    .arg(file, QString::number(info.st_mode & 0777, 8));
        qCWarning(lcPlatform).noquote() << message;
        return {StoreFailed, message};
    }
    QFile input(file);
    if (!input.open(QIODevice::ReadOnly))
        return {StoreFailed, QStringLiteral("cannot read %1: %2").arg(file, input.errorString())};
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(input.readAll(), &error);
    if (!document.isObject()) {
        const QString message = QStringLiteral("cannot read %1: not a keychain file").arg(file);
        qCWarning(lcPlatform).noquote() << message;
        return {StoreFailed, message};
    }
    *items = document.object();
    return {};
}

SecretStore::Outcome FileSecretStore::save(const QJsonObject &items) const
{
    const QString file = path();
    const QString folder = QFileInfo(file).absolutePath();
    if (!QDir().mkpath(folder))
        return {StoreFailed, QStringLiteral("cannot create %1").arg(folder)};
    ::chmod(QFile::encodeName(folder).constData(), 0700);
    QSaveFile output(file);
    if (!output.open(QIODevice::WriteOnly))
        return {StoreFailed, QStringLiteral("cannot write %1: %2").arg(file, output.errorString())};
    // Restrict the temporary file before any secret is written into it.
    if (::fchmod(output.handle(), 0600) != 0) {
        output.cancelWriting();
        return {StoreFailed, QStringLiteral("cannot protect %1").arg(file)};
    }
    output.write(QJsonDocument(items).toJson(QJsonDocument::Indented));
    if (!output.commit())
        return {StoreFailed, QStringLiteral("cannot write %1: %2").arg(file, output.errorString())};
    return {};
}

SecretStore::Outcome FileSecretStore::exists(const QString &service, const QString &account)
{
    const std::lock_guard guard(m_lock);
    QJsonObject items;
    const Outcome loaded = load(&items);
    if (loaded.status != Success)
        return loaded;
    return items.contains(itemKey(service, account)) ? Outcome{} : Outcome{ItemNotFound, {}};
}

SecretStore::Outcome FileSecretStore::read(const QString &service, const QString &account, QByteArray *secret)
{
    const std::lock_guard guard(m_lock);
    QJsonObject items;
    const Outcome loaded = load(&items);
    if (loaded.status != Success)
        return loaded;
    const QJsonValue item = items.value(itemKey(service, account));
    const QJsonValue encoded = item.toObject().value(QStringLiteral("secret"));
    if (!encoded.isString())
        return {ItemNotFound, {}};
    *secret = QByteArray::fromBase64(encoded.toString().toLatin1());
    return {};
}

SecretStore::Outcome FileSecretStore::write(const QString &service, const QString &label,
                                            const QString &account, const QByteArray &secret)
{
    const std::lock_guard guard(m_lock);
    QJsonObject items;
    const Outcome loaded = load(&items);
    if (loaded.status != Success)
        return loaded;
    items.insert(itemKey(service, account),
                 QJsonObject{{QStringLiteral("service"), service},
                             {QStringLiteral("account"), account},
                             {QStringLiteral("label"), label},
                             {QStringLiteral("secret"), QString::fromLatin1(secret.toBase64())}});
    return save(items);
}

SecretStore::Outcome FileSecretStore::remove(const QString &service, const QString &account)
{
    const std::lock_guard guard(m_lock);
    QJsonObject items;
    const Outcome loaded = load(&items);
    if (loaded.status != Success)
        return loaded;
    if (!items.contains(itemKey(service, account)))
        return {ItemNotFound, {}};
    items.remove(itemKey(service, account));
    return save(items);
}
