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

} // namespace

LibsecretSecretStore::LibsecretSecretStore(std::chrono::milliseconds deadline)
    : m_deadline(deadline)
{}

SecretStore::Outcome LibsecretSecretStore::probe()
{
    const Outcome outcome = exists(QStringLiteral("VandrelOSX"), QStringLiteral("~probe"));
    return outcome.status == ItemNotFound ? Outcome{} : outcome;
}

SecretStore::Outcome LibsecretSecretStore::exists(const QString &service, const QString &account)
{
    Deadline deadline(m_deadline);
    GError *error = nullptr;
    // Searching without unlocking sees items of a locked keyring too, without reading any secret.
    GList *items = secret_password_search_sync(schema(), SECRET_SEARCH_NONE, deadline.cancellable(), &error,
                                               "service", service.toUtf8().constData(), "account",
                                               account.toUtf8().constData(), nullptr);
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
    gchar *password = secret_password_lookup_sync(schema(), deadline.cancellable(), &error, "service",
                                                  service.toUtf8().constData(), "account",
                                                  account.toUtf8().constData(), nullptr);
    if (error)
        return failure(error, deadline);
    if (!password)
        return {ItemNotFound, {}};
    *secret = QByteArray(password);
    secret_password_free(password);
    return {};
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
    const gboolean removed = secret_password_clear_sync(schema(), deadline.cancellable(), &error, "service",
                                                        service.toUtf8().constData(), "account",
                                                        account.toUtf8().constData(), nullptr);
    if (error)
        return failure(error, deadline);
    return removed ? Outcome{} : Outcome{ItemNotFound, {}};
}
