#include "Vorrel/Platform/Linux/MessageBus.h"

#include <gio/gio.h>

#include <algorithm>

namespace korvane {

/// A `GCancellable` that follows a stop token.
class MessageBus::Stop {
public:
    explicit Stop(const std::stop_token &token) : follow(token, Cancel{object.get()}) { }
    GCancellable *get() const { return object.get(); }

private:
    struct Unref {
        void operator()(GCancellable *object) const { g_object_unref(object); }
    };
    struct Cancel {
        GCancellable *object;
        void operator()() const { g_cancellable_cancel(object); }
    };
    const std::unique_ptr<GCancellable, Unref> object{g_cancellable_new()};
    const std::stop_callback<Cancel> follow; // the last member: it must let go before the object
};

namespace {

struct Opening {
    GDBusConnection *connection = nullptr;
    bool finished = false;
};

void opened(GObject *, GAsyncResult *result, gpointer data)
{
    auto *const opening = static_cast<Opening *>(data);
    opening->connection = g_dbus_connection_new_for_address_finish(result, nullptr);
    opening->finished = true;
}

gboolean giveUp(gpointer cancellable)
{
    g_cancellable_cancel(static_cast<GCancellable *>(cancellable));
    return G_SOURCE_REMOVE;
}

/// Connects in a main context of its own, because the connecting call has no time limit and a socket's owner may
/// never answer.
GDBusConnection *connect(const std::string &address, Milliseconds limit, GCancellable *cancellable)
{
    GMainContext *const context = g_main_context_new();
    g_main_context_push_thread_default(context);
    GSource *const timer = g_timeout_source_new(static_cast<guint>(limit.count()));
    g_source_set_callback(timer, giveUp, cancellable, nullptr);
    g_source_attach(timer, context);

    Opening opening;
    constexpr auto flags = static_cast<GDBusConnectionFlags>(
        G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT | G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
    g_dbus_connection_new_for_address(address.c_str(), flags, nullptr, cancellable, opened, &opening);
    while (!opening.finished)
        g_main_context_iteration(context, TRUE);

    g_source_destroy(timer);
    g_source_unref(timer);
    g_main_context_pop_thread_default(context);
    g_main_context_unref(context);
    return opening.connection;
}

BusReply::Outcome outcomeOf(const GError *error)
{
    if (MessageBus::meansAbsent(error))
        return BusReply::Outcome::absent;
    if (g_error_matches(error, G_IO_ERROR, G_IO_ERROR_TIMED_OUT))
        return BusReply::Outcome::late;
    return BusReply::Outcome::refused;
}

const BusObject theBus{"org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus"};

using Listener = std::function<void(BusSignal)>;

std::string textOf(const gchar *text) { return text ? text : ""; }

/// Sees every message before the library looks at it.
GDBusMessage *passSignal(GDBusConnection *, GDBusMessage *message, gboolean incoming, gpointer listener)
{
    GVariant *const body = g_dbus_message_get_body(message);
    if (incoming && body && g_dbus_message_get_message_type(message) == G_DBUS_MESSAGE_TYPE_SIGNAL)
        (*static_cast<const Listener *>(listener))(
            {textOf(g_dbus_message_get_path(message)), textOf(g_dbus_message_get_interface(message)),
                textOf(g_dbus_message_get_member(message)), std::shared_ptr<GVariant>(g_variant_ref(body), g_variant_unref)});
    return message;
}

void forgetListener(gpointer listener) { delete static_cast<Listener *>(listener); }

} // namespace

std::unique_ptr<MessageBus> MessageBus::open(const std::string &address, Milliseconds limit, std::stop_token stop)
{
    if (address.empty())
        return nullptr;
    const Stop cancellable(stop);
    GDBusConnection *const connection = connect(address, limit, cancellable.get());
    return connection ? std::unique_ptr<MessageBus>(new MessageBus(connection, limit, std::move(stop))) : nullptr;
}

bool MessageBus::meansAbsent(const GError *error)
{
    if (error->domain != G_DBUS_ERROR)
        return false;
    switch (error->code) {
    case G_DBUS_ERROR_SERVICE_UNKNOWN:
    case G_DBUS_ERROR_NAME_HAS_NO_OWNER:
    case G_DBUS_ERROR_UNKNOWN_METHOD:
    case G_DBUS_ERROR_UNKNOWN_OBJECT:
    case G_DBUS_ERROR_UNKNOWN_INTERFACE:
    case G_DBUS_ERROR_NOT_SUPPORTED:
    case G_DBUS_ERROR_SPAWN_EXEC_FAILED:
    case G_DBUS_ERROR_SPAWN_FORK_FAILED:
    case G_DBUS_ERROR_SPAWN_CHILD_EXITED:
    case G_DBUS_ERROR_SPAWN_CHILD_SIGNALED:
    case G_DBUS_ERROR_SPAWN_FAILED:
    case G_DBUS_ERROR_SPAWN_SERVICE_INVALID:
    case G_DBUS_ERROR_SPAWN_SERVICE_NOT_FOUND:
    case G_DBUS_ERROR_SPAWN_FILE_INVALID: return true;
    default: return false;
    }
}

MessageBus::~MessageBus() { g_object_unref(connection); }

BusReply MessageBus::call(const BusObject &object, const char *method, GVariant *arguments)
{
    const Stop cancellable(stop);
    GError *error = nullptr;
    GVariant *const values =
        g_dbus_connection_call_sync(connection, object.service.c_str(), object.path.c_str(), object.interface.c_str(), method,
            arguments, nullptr, G_DBUS_CALL_FLAGS_NONE, static_cast<int>(limit.count()), cancellable.get(), &error);
    if (values)
        return BusReply{BusReply::Outcome::done, std::shared_ptr<GVariant>(values, g_variant_unref)};
    const BusReply reply{outcomeOf(error)};
    g_error_free(error);
    return reply;
}

bool MessageBus::emit(const std::string &path, const std::string &interface, const std::string &member)
{
    if (!g_dbus_connection_emit_signal(connection, nullptr, path.c_str(), interface.c_str(), member.c_str(), nullptr, nullptr))
        return false;
    // The bus takes messages in their order: its answer to this says that it has the signal too.
    return call(theBus, "GetId", nullptr).outcome == BusReply::Outcome::done;
}

bool MessageBus::listen(const std::vector<std::string> &rules, Listener told)
{
    g_dbus_connection_add_filter(connection, passSignal, new Listener(std::move(told)), forgetListener);
    return std::ranges::all_of(rules, [this](const std::string &rule) {
        return call(theBus, "AddMatch", g_variant_new("(s)", rule.c_str())).outcome == BusReply::Outcome::done;
    });
}

std::string MessageBus::name() const { return textOf(g_dbus_connection_get_unique_name(connection)); }

} // namespace korvane
