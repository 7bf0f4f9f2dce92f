#include "Vorrel/Platform/Linux/LinuxSecretStore.h"

#include "Vorrel/Platform/Linux/MessageBus.h"

#include <libsecret/secret.h>

#include <memory>
#include <optional>
#include <vector>

namespace korvane {

namespace {

using Outcome = SecretStore::Outcome;

constexpr Milliseconds grace{500}; // for a call that was given up to say so

const SecretSchema *schema()
{
    static const SecretSchema ours = [] {
        SecretSchema made{};
        made.name = "dev.korvane.vorrel.Secret";
        made.attributes[0] = {"service", SECRET_SCHEMA_ATTRIBUTE_STRING};
        made.attributes[1] = {"account", SECRET_SCHEMA_ATTRIBUTE_STRING};
        return made;
    }();
    return &ours;
}

struct Unref {
    void operator()(gpointer object) const { g_object_unref(object); }
};
template <class Object> using Held = std::unique_ptr<Object, Unref>;

struct FreeError {
    void operator()(GError *error) const { g_error_free(error); }
};
using Error = std::unique_ptr<GError, FreeError>;

struct FreeAttributes {
    void operator()(GHashTable *table) const { g_hash_table_unref(table); }
};
using Attributes = std::unique_ptr<GHashTable, FreeAttributes>;

struct FreeValue {
    void operator()(SecretValue *value) const { secret_value_unref(value); }
};
using Value = std::unique_ptr<SecretValue, FreeValue>;

struct FreeList {
    void operator()(GList *list) const { g_list_free(list); }
};

Attributes attributesOf(const SecretStore::Item &item)
{
    return Attributes(
        secret_attributes_build(schema(), "service", item.service.c_str(), "account", item.account.c_str(), nullptr));
}

Value valueOf(const std::string &bytes)
{
    return Value(secret_value_new(bytes.data(), static_cast<gssize>(bytes.size()), "text/plain"));
}

Outcome outcomeOf(const GError *error)
{
    if (!error)
        return Outcome::failed;
    if (MessageBus::meansAbsent(error) || g_error_matches(error, G_IO_ERROR, G_IO_ERROR_CLOSED))
        return Outcome::noService;
    if (g_error_matches(error, SECRET_ERROR, SECRET_ERROR_IS_LOCKED))
        return Outcome::locked;
    if (g_error_matches(error, SECRET_ERROR, SECRET_ERROR_NO_SUCH_OBJECT))
        return Outcome::absent;
    if (g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_ACCESS_DENIED)
        || g_error_matches(error, G_DBUS_ERROR, G_DBUS_ERROR_AUTH_FAILED))
        return Outcome::denied;
    return Outcome::failed;
}

/// The library's asynchronous calls as blocking ones, each with a time limit. Its own blocking calls have none.
class Calls {
public:
    explicit Calls(std::stop_token stop) : stop(std::move(stop)) { g_main_context_push_thread_default(context); }
    ~Calls()
    {
        // What objects left behind when they ended still refers to the connection.
        while (g_main_context_iteration(context, FALSE)) { }
        g_main_context_pop_thread_default(context);
        g_main_context_unref(context);
    }
    Calls(const Calls &) = delete;
    Calls &operator=(const Calls &) = delete;

    /// Starts a call with `begin(cancellable, callback, data)` and waits for its result; null when it did not even end after it
    /// had been given up.
    template <class Begin> Held<GAsyncResult> run(Milliseconds limit, const Begin &begin)
    {
        // Shared with the callback, which comes late or never where a service is broken.
        auto *const waiting = new std::shared_ptr<Waiting>(std::make_shared<Waiting>());
        const std::shared_ptr<Waiting> mine = *waiting;
        const std::stop_callback cancelling(stop, [cancellable = mine->cancellable.get(), this] {
            g_cancellable_cancel(cancellable);
            g_main_context_wakeup(context);
        });
        begin(mine->cancellable.get(), &Calls::finished, static_cast<gpointer>(waiting));
        turnUntil(*mine, limit);
        if (!mine->result) {
            mine->late = true;
            g_cancellable_cancel(mine->cancellable.get());
            turnUntil(*mine, grace);
        }
        _late = mine->late;
        return std::move(mine->result);
    }

    /// Whether the last call took longer than it may.
    bool late() const { return _late; }

private:
    struct Waiting {
        Held<GCancellable> cancellable{g_cancellable_new()};
        Held<GAsyncResult> result;
        bool late = false;
    };

    static void finished(GObject *, GAsyncResult *result, gpointer data)
    {
        const std::unique_ptr<std::shared_ptr<Waiting>> waiting(static_cast<std::shared_ptr<Waiting> *>(data));
        (*waiting)->result.reset(G_ASYNC_RESULT(g_object_ref(result)));
    }

    void turnUntil(const Waiting &waiting, Milliseconds limit)
    {
        bool over = false;
        GSource *const timer = g_timeout_source_new(static_cast<guint>(limit.count()));
        const auto end = [](gpointer flag) -> gboolean {
            *static_cast<bool *>(flag) = true;
            return G_SOURCE_REMOVE;
        };
        g_source_set_callback(timer, end, &over, nullptr);
        g_source_attach(timer, context);
        while (!waiting.result && !over)
            g_main_context_iteration(context, TRUE);
        g_source_destroy(timer);
        g_source_unref(timer);
    }

    GMainContext *const context = g_main_context_new();
    const std::stop_token stop;
    bool _late = false;
};

} // namespace

/// One operation's connection to the service, and what it finds there.
class LinuxSecretStore::Session {
public:
    Session(const std::string &address, Limits limits, const std::stop_token &stop) :
        calls(stop), limits(limits), hasBus(!address.empty())
    {
    }

    /// Connects to the service and finds the items, unlocked. Anything but `done` ends the operation.
    Outcome find(const Item &item)
    {
        if (const Outcome opened = open(); opened != Outcome::done)
            return opened;
        const Attributes attributes = attributesOf(item);
        if (!attributes)
            return Outcome::failed; // no text: the library would not even begin
        const auto result = calls.run(limits.call, [&](GCancellable *cancellable, GAsyncReadyCallback done, gpointer data) {
            secret_service_search(service.get(), schema(), attributes.get(), SECRET_SEARCH_ALL, cancellable, done, data);
        });
        GError *error = nullptr;
        const std::unique_ptr<GList, FreeList> found(
            result ? secret_service_search_finish(service.get(), result.get(), &error) : nullptr);
        if (!result || error)
            return failed(error);
        for (const GList *one = found.get(); one; one = one->next)
            items.emplace_back(SECRET_ITEM(one->data));
        return items.empty() ? Outcome::absent : unlock();
    }

    Secret read()
    {
        SecretItem *const item = items.front().get();
        const auto result = calls.run(limits.call, [&](GCancellable *cancellable, GAsyncReadyCallback done, gpointer data) {
            secret_item_load_secret(item, cancellable, done, data);
        });
        GError *error = nullptr;
        if (!result || !secret_item_load_secret_finish(item, result.get(), &error))
            return {failed(error)};
        const Value value(secret_item_get_secret(item));
        if (!value)
            return {Outcome::failed};
        gsize size = 0;
        const gchar *const bytes = secret_value_get(value.get(), &size);
        return {Outcome::done, std::string(bytes, size)};
    }

    /// All of them: another program may have made a second one.
    Outcome write(const std::string &bytes)
    {
        const Value value = valueOf(bytes);
        for (const auto &item : items) {
            const auto result = calls.run(limits.call, [&](GCancellable *cancellable, GAsyncReadyCallback done, gpointer data) {
                secret_item_set_secret(item.get(), value.get(), cancellable, done, data);
            });
            GError *error = nullptr;
            if (!result || !secret_item_set_secret_finish(item.get(), result.get(), &error))
                return failed(error);
        }
        return Outcome::done;
    }

    Outcome add(const Item &item, const std::string &bytes)
    {
        if (const Outcome opened = open(); opened != Outcome::done)
            return opened;
        const Attributes attributes = attributesOf(item);
        if (!attributes)
            return Outcome::failed; // no text: the library would not even begin
        const Value value = valueOf(bytes);
        const std::string label = "Korvane: " + item.account;
        const auto result = calls.run(limits.prompt, [&](GCancellable *cancellable, GAsyncReadyCallback done, gpointer data) {
            secret_service_store(service.get(), schema(), attributes.get(), SECRET_COLLECTION_DEFAULT, label.c_str(), value.get(),
                cancellable, done, data);
        });
        GError *error = nullptr;
        if (result && secret_service_store_finish(service.get(), result.get(), &error))
            return Outcome::done;
        // Only a person takes that long: the other calls of the way have been answered by now.
        return calls.late() ? (g_clear_error(&error), Outcome::locked) : failed(error);
    }

    Outcome remove()
    {
        for (const auto &item : items) {
            const auto result = calls.run(limits.call, [&](GCancellable *cancellable, GAsyncReadyCallback done, gpointer data) {
                secret_item_delete(item.get(), cancellable, done, data);
            });
            GError *error = nullptr;
            if (!result || !secret_item_delete_finish(item.get(), result.get(), &error))
                return failed(error);
        }
        return Outcome::done;
    }

private:
    /// Takes over `error`, which is null where a call was not even given up in time.
    static Outcome failed(GError *error)
    {
        const Error held(error);
        return outcomeOf(error);
    }

    Outcome open()
    {
        if (!hasBus || !connect())
            return Outcome::noService;
        const auto result = calls.run(limits.call, [&](GCancellable *cancellable, GAsyncReadyCallback done, gpointer data) {
            secret_service_open(SECRET_TYPE_SERVICE, nullptr, SECRET_SERVICE_OPEN_SESSION, cancellable, done, data);
        });
        GError *error = nullptr;
        service.reset(result ? secret_service_open_finish(result.get(), &error) : nullptr);
        return service ? Outcome::done : failed(error);
    }

    /// Takes the process's shared connection, which the library uses too, so that the end of the bus does not end the process.
    bool connect()
    {
        const auto result = calls.run(limits.call, [](GCancellable *cancellable, GAsyncReadyCallback done, gpointer data) {
            g_bus_get(G_BUS_TYPE_SESSION, cancellable, done, data);
        });
        bus.reset(result ? g_bus_get_finish(result.get(), nullptr) : nullptr);
        if (bus)
            g_dbus_connection_set_exit_on_close(bus.get(), FALSE);
        return bus != nullptr;
    }

    bool locked() const
    {
        for (const auto &item : items) {
            if (secret_item_get_locked(item.get()))
                return true;
        }
        return false;
    }

    /// Asks the user to unlock what is locked.
    Outcome unlock()
    {
        if (!locked())
            return Outcome::done;
        std::unique_ptr<GList, FreeList> objects;
        for (const auto &item : items)
            objects.reset(g_list_append(objects.release(), item.get()));
        const auto result = calls.run(limits.prompt, [&](GCancellable *cancellable, GAsyncReadyCallback done, gpointer data) {
            secret_service_unlock(service.get(), objects.get(), cancellable, done, data);
        });
        GError *error = nullptr;
        const int unlocked = result ? secret_service_unlock_finish(service.get(), result.get(), nullptr, &error) : 0;
        const Error held(error);
        if (error && !calls.late())
            return outcomeOf(error);
        return unlocked == static_cast<int>(items.size()) ? Outcome::done : Outcome::locked;
    }

    Calls calls;
    const Limits limits;
    const bool hasBus;
    Held<GDBusConnection> bus;
    Held<SecretService> service;
    std::vector<Held<SecretItem>> items;
};

SecretStore::Secret LinuxSecretStore::read(const Item &item, std::stop_token stop)
{
    Session session(address, limits, stop);
    const Outcome found = session.find(item);
    return found == Outcome::done ? session.read() : Secret{found};
}

Outcome LinuxSecretStore::update(const Item &item, const std::string &bytes, std::stop_token stop)
{
    Session session(address, limits, stop);
    const Outcome found = session.find(item);
    return found == Outcome::done ? session.write(bytes) : found;
}

Outcome LinuxSecretStore::add(const Item &item, const std::string &bytes, std::stop_token stop)
{
    Session session(address, limits, stop);
    return session.add(item, bytes);
}

Outcome LinuxSecretStore::remove(const Item &item, std::stop_token stop)
{
    Session session(address, limits, stop);
    const Outcome found = session.find(item);
    return found == Outcome::done ? session.remove() : found;
}

} // namespace korvane
