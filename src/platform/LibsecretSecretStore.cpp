#include "platform/LibsecretSecretStore.h"

#include <libsecret/secret.h>

#include <condition_variable>
#include <mutex>
#include <thread>

namespace {

// Generic items matched on their attributes only, so a keyring browser or another tool can see them.
const SecretSchema *schema()
{
    static const SecretSchema generic = {
        "org.freedesktop.Secret.Generic",
        SECRET_SCHEMA_DONT_MATCH_NAME,
        {{"service", SECRET_SCHEMA_ATTRIBUTE_STRING},
         {"account", SECRET_SCHEMA_ATTRIBUTE_STRING},
         {nullptr, SECRET_SCHEMA_ATTRIBUTE_STRING}},
        0,
        nullptr,
        nullptr,
        nullptr,
        nullptr,
        nullptr,
        nullptr,
        nullptr,
    };
    return &generic;
}

// A cancellable that a watchdog thread cancels when the deadline passes first.
class Deadline
{
public:
    explicit Deadline(std::chrono::milliseconds limit)
        : m_cancellable(g_cancellable_new())
    {
        m_watchdog = std::thread([this, limit] {
            std::unique_lock lock(m_mutex);
            if (!m_finished.wait_for(lock, limit, [this] { return m_done; })) {
                m_expired = true;
                g_cancellable_cancel(m_cancellable);
            }
        });
    }
    ~Deadline()
    {
        {
            const std::lock_guard lock(m_mutex);
            m_done = true;
        }
        m_finished.notify_one();
        m_watchdog.join();
        g_object_unref(m_cancellable);
    }
    Deadline(const Deadline &) = delete;
    Deadline &operator=(const Deadline &) = delete;

    GCancellable *cancellable() const { return m_cancellable; }
    bool expired()
    {
        const std::lock_guard lock(m_mutex);
        return m_expired;
    }

private:
    GCancellable *m_cancellable;
    std::mutex m_mutex; // guards m_done and m_expired
    std::condition_variable m_finished;
    bool m_done = false;
    bool m_expired = false;
    std::thread m_watchdog;
};

SecretStore::Outcome failure(GError *error, Deadline &deadline)
{
    const bool timedOut = deadline.expired();
    const QString message = timedOut
                                ? QStringLiteral("the Secret Service did not answer in time")
                                : QString::fromUtf8(error ? error->message : "unknown Secret Service error");
    const bool unreachable =
        timedOut || (error && (error->domain == G_DBUS_ERROR || error->domain == G_IO_ERROR));
    if (error)
        g_error_free(error);
    return {unreachable ? SecretStore::NotAvailable : SecretStore::StoreFailed, message};
}

// The items of service + account, each a SecretItem; null with *error set when the search failed.
GList *searchItems(const QString &service, const QString &account, SecretSearchFlags flags,
                   Deadline &deadline, GError **error)
{
    GHashTable *attributes = secret_attributes_build(schema(), "service", service.toUtf8().constData(),
                                                     "account", account.toUtf8().constData(), nullptr);
    GList *items = secret_service_search_sync(nullptr, schema(), attributes,
                                              SecretSearchFlags(flags | SECRET_SEARCH_ALL),
                                              deadline.cancellable(), error);
    g_hash_table_unref(attributes);
    return items;
}

bool anyLocked(GList *items)
{
    for (GList *item = items; item; item = item->next) {
        if (secret_item_get_locked(SECRET_ITEM(item->data)))
            return true;
    }
    return false;
}

const SecretStore::Outcome kLocked{SecretStore::Locked, QStringLiteral("the keyring is locked")};

} // namespace

LibsecretSecretStore::LibsecretSecretStore(std::chrono::milliseconds deadline)
    : m_deadline(deadline)
{}

SecretStore::Outcome LibsecretSecretStore::probe()
{
    Deadline deadline(m_deadline);
    GError *error = nullptr;
    SecretService *service = secret_service_get_sync(SECRET_SERVICE_NONE, deadline.cancellable(), &error);
    if (error)
        return failure(error, deadline);
    // Items go to the default keyring: a daemon without one (no login keyring on a headless machine) or
    // with it locked would answer searches yet fail every store, as creating or unlocking it needs the user.
    SecretCollection *collection = secret_collection_for_alias_sync(
        service, SECRET_COLLECTION_DEFAULT, SECRET_COLLECTION_NONE, deadline.cancellable(), &error);
    g_object_unref(service);
    if (error)
        return failure(error, deadline);
    if (!collection)
        return {NotAvailable, QStringLiteral("there is no default keyring")};
    const bool locked = secret_collection_get_locked(collection);
    g_object_unref(collection);
    return locked ? Outcome{Locked, QStringLiteral("the default keyring is locked")} : Outcome{};
}

SecretStore::Outcome LibsecretSecretStore::exists(const QString &service, const QString &account)
{
    Deadline deadline(m_deadline);
    GError *error = nullptr;
    // A search that does not unlock still sees the items of a locked keyring, without reading any secret.
    GList *items = searchItems(service, account, SECRET_SEARCH_NONE, deadline, &error);
    if (error)
        return failure(error, deadline);
    const bool found = items != nullptr;
    g_list_free_full(items, g_object_unref);
    return found ? Outcome{} : Outcome{ItemNotFound, {}};
}

SecretStore::Outcome LibsecretSecretStore::read(const QString &service, const QString &account,
                                                QByteArray *secret)
{
    Deadline deadline(m_deadline);
    GError *error = nullptr;
    // Never unlocks: the prompt would outlive the deadline, and a locked item must not pass for one
    // without a secret, which the layer above deletes.
    GList *items = searchItems(service, account, SECRET_SEARCH_LOAD_SECRETS, deadline, &error);
    if (error)
        return failure(error, deadline);
    Outcome outcome{ItemNotFound, {}};
    for (GList *item = items; item; item = item->next) {
        if (secret_item_get_locked(SECRET_ITEM(item->data))) {
            outcome = kLocked;
            continue;
        }
        SecretValue *value = secret_item_get_secret(SECRET_ITEM(item->data));
        if (!value)
            continue;
        gsize length = 0;
        const gchar *bytes = secret_value_get(value, &length);
        *secret = QByteArray(bytes, qsizetype(length));
        secret_value_unref(value);
        outcome = {};
        break;
    }
    g_list_free_full(items, g_object_unref);
    return outcome;
}

SecretStore::Outcome LibsecretSecretStore::write(const QString &service, const QString &label,
                                                 const QString &account, const QByteArray &secret)
{
    Deadline deadline(m_deadline);
    GError *error = nullptr;
    const QByteArray text = secret + '\0';
    secret_password_store_sync(schema(), SECRET_COLLECTION_DEFAULT, label.toUtf8().constData(),
                               text.constData(), deadline.cancellable(), &error, "service",
                               service.toUtf8().constData(), "account", account.toUtf8().constData(),
                               nullptr);
    if (error)
        return failure(error, deadline);
    return {};
}

SecretStore::Outcome LibsecretSecretStore::remove(const QString &service, const QString &account)
{
    Deadline deadline(m_deadline);
    GError *error = nullptr;
    GList *items = searchItems(service, account, SECRET_SEARCH_NONE, deadline, &error);
    if (error)
        return failure(error, deadline);
    // All or nothing: removing only the unlocked copies would let a stale locked one resurface later.
    Outcome outcome = !items ? Outcome{ItemNotFound, {}} : anyLocked(items) ? kLocked : Outcome{};
    for (GList *item = items; item && outcome.status == Success; item = item->next) {
        if (!secret_item_delete_sync(SECRET_ITEM(item->data), deadline.cancellable(), &error))
            outcome = failure(error, deadline);
    }
    g_list_free_full(items, g_object_unref);
    return outcome;
}
