#include "Vorrel/Platform/Linux/PortalHotkeys.h"

#include "Vorrel/Platform/Linux/MessageBus.h"
#include "Vorrel/Platform/VirtualKeys.h"

#include <gio/gio.h>
#include <xkbcommon/xkbcommon.h>

#include <algorithm>
#include <array>
#include <map>

namespace korvane {

namespace {

using Reason = HotkeyRegistrationError::Reason;
using Outcome = BusReply::Outcome;
using Arguments = std::function<GVariant *()>;

constexpr Milliseconds callLimit{5000};

const std::string service = "org.freedesktop.portal.Desktop";
const std::string shortcutsInterface = "org.freedesktop.portal.GlobalShortcuts";
const std::string sessionInterface = "org.freedesktop.portal.Session";
const std::string requestInterface = "org.freedesktop.portal.Request";
const BusObject shortcuts{service, "/org/freedesktop/portal/desktop", shortcutsInterface};
const BusObject properties{service, shortcuts.path, "org.freedesktop.DBus.Properties"};

/// A shortcut that was asked for, from its lease to its end.
struct Reservation {
    HotkeyConfiguration configuration;
    std::string session; ///< The portal's object; empty until there is one.
    TaskHandle binding;
};

/// A question to the desktop's user, answered some time after the call.
struct Question {
    AsyncEvent answered;
    std::uint32_t code = 0; ///< 0 for yes.
    std::shared_ptr<GVariant> results = {};
};

std::string matching(const std::string &interface)
{
    return "type='signal',sender='" + service + "',interface='" + interface + "'";
}

/// Whether the values are of this type: services are other people's programs.
bool has(const std::shared_ptr<GVariant> &values, const char *type)
{
    return values && g_variant_is_of_type(values.get(), G_VARIANT_TYPE(type));
}

std::string textIn(GVariant *dictionary, const char *name)
{
    const char *text = nullptr;
    return g_variant_lookup(dictionary, name, "&s", &text) ? text : "";
}

/// Options with these texts.
GVariant *options(std::initializer_list<std::pair<const char *, std::string>> texts)
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE_VARDICT);
    for (const auto &[name, text] : texts)
        g_variant_builder_add(&builder, "{sv}", name, g_variant_new_string(text.c_str()));
    return g_variant_builder_end(&builder);
}

} // namespace

/// The conversation with the portal. Leases and signals reach it weakly.
class PortalHotkeys::Portal : public std::enable_shared_from_this<Portal> {
public:
    Portal(const PortalHotkeys &owner, Handlers handlers) :
        mainThread(owner.mainThread), actor(owner.pool), address(owner.bus), description(owner.description),
        handlers(std::move(handlers))
    {
    }

    void open()
    {
        absent = false;
        connected = std::make_shared<AsyncEvent>();
        Task<void> task = connect(shared_from_this());
        connecting = spawn(mainThread, std::move(task));
    }

    void end()
    {
        handlers = {};
        connecting.cancel();
        reservations.clear();
        bus.reset();
    }

    int reserve(const HotkeyConfiguration &configuration)
    {
        if (absent)
            open(); // a desktop that was slow to start may have it by now
        const int number = ++lastNumber;
        Task<void> task = bind(shared_from_this(), number, configuration);
        reservations[number].configuration = configuration;
        reservations[number].binding = spawn(mainThread, std::move(task));
        return number;
    }

    void release(int number)
    {
        const auto found = reservations.find(number);
        if (found == reservations.end())
            return;
        const std::string session = found->second.session;
        reservations.erase(found);
        if (bus && !session.empty())
            spawnDetached(mainThread, close(shared_from_this(), session));
    }

private:
    static Task<void> connect(std::shared_ptr<Portal> self)
    {
        auto work = [address = self->address, told = self->listener()](std::stop_token) { return openBus(address, told); };
        const std::shared_ptr<MessageBus> opened = co_await self->actor.run(std::move(work));
        co_await throwIfCancelled();
        self->bus = opened;
        self->absent = !opened;
        self->connected->fire();
        if (self->absent)
            self->loseAll();
    }

    /// Null where there is no portal that has shortcuts.
    static std::shared_ptr<MessageBus> openBus(const std::string &address, std::function<void(BusSignal)> told)
    {
        std::shared_ptr<MessageBus> bus = MessageBus::open(address, callLimit);
        if (!bus)
            return nullptr;
        const auto version = bus->call(properties, "Get", g_variant_new("(ss)", shortcutsInterface.c_str(), "version"));
        const std::string ending = "type='signal',sender='org.freedesktop.DBus',member='NameOwnerChanged',arg0='" + service + "'";
        const bool usable = version.outcome == Outcome::done
            && bus->listen(
                {matching(shortcutsInterface), matching(sessionInterface), matching(requestInterface), ending}, std::move(told));
        return usable ? bus : nullptr;
    }

    /// Brings signals from the library's thread to the main one.
    std::function<void(BusSignal)> listener()
    {
        return [mainThread = mainThread, weak = weak_from_this()](BusSignal signal) {
            runLater(mainThread, [weak, signal = std::move(signal)] {
                if (const auto self = weak.lock())
                    self->told(signal);
            });
        };
    }

    void told(const BusSignal &signal)
    {
        if (signal.interface == requestInterface && signal.member == "Response")
            answered(signal);
        else if (signal.interface == shortcutsInterface && signal.member == "Activated")
            activated(signal);
        else if (signal.interface == sessionInterface && signal.member == "Closed")
            sessionClosed(signal.path);
        else if (signal.member == "NameOwnerChanged" && has(signal.values, "(sss)"))
            ownerChanged(signal);
    }

    void answered(const BusSignal &signal)
    {
        const auto question = questions.find(signal.path);
        if (question == questions.end() || !has(signal.values, "(ua{sv})"))
            return;
        GVariant *results = nullptr;
        g_variant_get(signal.values.get(), "(u@a{sv})", &question->second->code, &results);
        question->second->results.reset(results, g_variant_unref);
        question->second->answered.fire();
    }

    void activated(const BusSignal &signal)
    {
        if (!has(signal.values, "(osta{sv})"))
            return;
        const char *session = nullptr;
        g_variant_get_child(signal.values.get(), 0, "&o", &session);
        const auto known = std::ranges::any_of(reservations, [&](const auto &one) { return one.second.session == session; });
        if (const auto pressed = handlers.pressed; known && pressed)
            pressed();
    }

    void sessionClosed(const std::string &session)
    {
        const auto closed = std::ranges::find_if(reservations, [&](const auto &one) { return one.second.session == session; });
        if (closed != reservations.end())
            lose(closed->first, HotkeyRegistrationError(Reason::unavailable));
    }

    /// Sessions end with the portal that holds them.
    void ownerChanged(const BusSignal &signal)
    {
        const char *next = nullptr;
        g_variant_get_child(signal.values.get(), 2, "&s", &next);
        if (!*next)
            loseAll();
    }

    static Task<void> bind(std::shared_ptr<Portal> self, int number, HotkeyConfiguration configuration)
    {
        const std::shared_ptr<AsyncEvent> connected = self->connected;
        co_await connected->wait();
        if (!self->bus)
            co_return; // already told
        const std::string session = co_await createSession(self);
        co_await throwIfCancelled();
        if (session.empty())
            co_return self->lose(number, HotkeyRegistrationError(Reason::unavailable));
        self->reservations[number].session = session;
        const std::optional<std::uint32_t> refusal = co_await bindShortcut(self, session, configuration);
        co_await throwIfCancelled();
        if (refusal)
            self->lose(number, HotkeyRegistrationError(Reason::rejected, std::int32_t(*refusal)));
        else if (const auto granted = self->handlers.granted)
            granted(configuration);
    }

    /// The session's object; empty when the portal gives none.
    static Task<std::string> createSession(std::shared_ptr<Portal> self)
    {
        const std::string token = self->newToken();
        const Arguments arguments = [token] {
            return g_variant_new("(@a{sv})", options({{"handle_token", token}, {"session_handle_token", token}}));
        };
        const auto question = co_await ask(self, "CreateSession", token, arguments);
        co_return question && question->code == 0 ? textIn(question->results.get(), "session_handle") : "";
    }

    /// What the portal says against it, if anything.
    static Task<std::optional<std::uint32_t>> bindShortcut(
        std::shared_ptr<Portal> self, std::string session, HotkeyConfiguration configuration)
    {
        constexpr std::uint32_t otherwise = 2; // the portal's number for what is neither done nor the user's wish
        const std::string token = self->newToken();
        const Arguments arguments = [token, session, configuration, description = self->description] {
            // Desktops remember the user's choice by this name, so other keys are another shortcut.
            const std::string id =
                "palette-" + std::to_string(configuration.keyCode) + "-" + std::to_string(configuration.modifiers);
            GVariantBuilder list;
            g_variant_builder_init(&list, G_VARIANT_TYPE("a(sa{sv})"));
            g_variant_builder_add(&list, "(s@a{sv})", id.c_str(),
                options({{"description", description}, {"preferred_trigger", trigger(configuration)}}));
            return g_variant_new("(oa(sa{sv})s@a{sv})", session.c_str(), &list, "", options({{"handle_token", token}}));
        };
        const auto question = co_await ask(self, "BindShortcuts", token, arguments);
        if (!question)
            co_return otherwise;
        if (question->code != 0)
            co_return question->code;
        const std::shared_ptr<GVariant> bound(
            g_variant_lookup_value(question->results.get(), "shortcuts", G_VARIANT_TYPE("a(sa{sv})")), [](GVariant *list) {
                if (list)
                    g_variant_unref(list);
            });
        const bool none = bound && g_variant_n_children(bound.get()) == 0;
        co_return none ? std::optional(otherwise) : std::nullopt;
    }

    /// Calls a method of the portal's and waits for the answer, however long the user takes. Null when the call fails.
    static Task<std::shared_ptr<Question>> ask(
        std::shared_ptr<Portal> self, std::string method, std::string token, Arguments arguments)
    {
        const std::string path = self->requestPath(token);
        const auto question = std::make_shared<Question>();
        self->questions[path] = question; // before the call, since the answer may overtake its return
        auto work = [bus = self->bus, method, arguments](
                        std::stop_token) { return bus->call(shortcuts, method.c_str(), arguments()).outcome; };
        const Outcome outcome = co_await self->actor.run(std::move(work));
        std::exception_ptr error;
        try {
            co_await throwIfCancelled();
            if (outcome == Outcome::done)
                co_await question->answered.wait();
        } catch (...) {
            error = std::current_exception();
        }
        self->questions.erase(path);
        if (error)
            std::rethrow_exception(error);
        co_return outcome == Outcome::done ? question : nullptr;
    }

    static Task<void> close(std::shared_ptr<Portal> self, std::string session)
    {
        auto work = [bus = self->bus, session](std::stop_token) {
            bus->call({service, session, sessionInterface}, "Close", nullptr);
        };
        co_await self->actor.run(std::move(work));
    }

    /// The object on which the portal answers a request with this token.
    std::string requestPath(const std::string &token) const
    {
        std::string sender = bus->name().substr(1); // without the colon
        std::ranges::replace(sender, '.', '_');
        return "/org/freedesktop/portal/desktop/request/" + sender + "/" + token;
    }

    std::string newToken() { return "korvane" + std::to_string(++lastToken); }

    void lose(int number, const HotkeyRegistrationError &why)
    {
        const HotkeyConfiguration configuration = reservations[number].configuration;
        release(number);
        tellLost(configuration, why);
    }

    void loseAll()
    {
        for (const auto &[number, reservation] : std::exchange(reservations, {}))
            tellLost(reservation.configuration, HotkeyRegistrationError(Reason::unavailable));
    }

    void tellLost(const HotkeyConfiguration &which, const HotkeyRegistrationError &why) const
    {
        if (const auto lost = handlers.lost)
            lost(which, why);
    }

    const Executor mainThread;
    Actor actor;
    const std::string address, description;
    Handlers handlers;
    std::shared_ptr<MessageBus> bus;
    std::shared_ptr<AsyncEvent> connected; // or known to be absent
    bool absent = false;
    TaskHandle connecting;
    std::map<int, Reservation> reservations;
    std::map<std::string, std::shared_ptr<Question>> questions; // by the object that answers
    int lastNumber = 0;
    int lastToken = 0;
};

PortalHotkeys::PortalHotkeys(Executor mainThread, Executor pool, std::string bus, std::string description) :
    mainThread(std::move(mainThread)), pool(std::move(pool)), bus(std::move(bus)), description(std::move(description))
{
}

PortalHotkeys::~PortalHotkeys() { remove(); }

bool PortalHotkeys::install(Handlers handlers)
{
    if (bus.empty())
        return false;
    portal = std::make_shared<Portal>(*this, std::move(handlers));
    portal->open();
    return true;
}

void PortalHotkeys::remove()
{
    if (const auto ending = std::exchange(portal, nullptr))
        ending->end();
}

HotkeyLease PortalHotkeys::reserve(const HotkeyConfiguration &configuration)
{
    if (!portal)
        throw HotkeyRegistrationError(Reason::unavailable);
    const int number = portal->reserve(configuration);
    return HotkeyLease([weak = std::weak_ptr(portal), number] {
        if (const auto held = weak.lock())
            held->release(number);
    });
}

std::string PortalHotkeys::trigger(const HotkeyConfiguration &configuration)
{
    constexpr std::pair<std::uint32_t, const char *> words[] = {{HotkeyConfiguration::control, "CTRL+"},
        {HotkeyConfiguration::option, "ALT+"}, {HotkeyConfiguration::shift, "SHIFT+"}, {HotkeyConfiguration::command, "LOGO+"}};
    std::string text;
    for (const auto &[bit, word] : words)
        if (configuration.modifiers & bit)
            text += word;
    const VirtualKey *const key = virtualKeyOfCode(configuration.keyCode);
    std::array<char, 64> name{};
    if (key)
        ::xkb_keysym_get_name(key->keysym, name.data(), name.size());
    return text + name.data();
}

} // namespace korvane
