#include "Vorrel/Platform/Linux/PortalHotkeys.h"
#include "Vorrel/Platform/Linux/LinuxHotkeys.h"
#include "Vorrel/Shell/HotkeyService.h"

#include "Support/MainLoop.h"
#include "tests/Vorrel/Platform/Linux/PrivateBus.h"
#include "tests/support/Soon.h"

#include <gio/gio.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>

using namespace korvane;
using namespace korvane::test;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using Strings = std::vector<std::string>;
using Reason = HotkeyRegistrationError::Reason;

namespace {

constexpr const char *portalPath = "/org/freedesktop/portal/desktop";
constexpr const char *portalName = "org.freedesktop.portal.Desktop";
constexpr const char *portalInterface = "org.freedesktop.portal.GlobalShortcuts";

constexpr const char *description = R"xml(<node>
<interface name="org.freedesktop.portal.GlobalShortcuts">
 <property name="version" type="u" access="read"/>
 <method name="CreateSession"><arg type="a{sv}" direction="in"/><arg type="o" direction="out"/></method>
 <method name="BindShortcuts"><arg type="o" direction="in"/><arg type="a(sa{sv})" direction="in"/><arg type="s" direction="in"/>
  <arg type="a{sv}" direction="in"/><arg type="o" direction="out"/></method>
</interface>
<interface name="org.freedesktop.portal.Session"><method name="Close"/></interface>
</node>)xml";

/// The portal of a desktop whose user answers at once, as told.
class MockPortal {
public:
    struct Answers {
        std::uint32_t session = 0; ///< To CreateSession: 0 is yes.
        std::uint32_t binding = 0; ///< To BindShortcuts: 1 is the user's no.
        const char *refused = nullptr; ///< Only the binding of this trigger meets the user's no.
        bool bindsNothing = false;
        bool malformed = false; ///< The answers are of the wrong type.
    };

    MockPortal(const PrivateBus &bus, Answers answers) :
        answers(answers), nodes(g_dbus_node_info_new_for_xml(description, nullptr))
    {
        serving = std::thread([this, &bus] { serve(bus.address()); });
        bus.waitFor(portalName);
    }
    ~MockPortal()
    {
        leave();
        g_dbus_node_info_unref(nodes);
    }
    MockPortal(const MockPortal &) = delete;
    MockPortal &operator=(const MockPortal &) = delete;

    /// Goes off the bus.
    void leave()
    {
        ended = true;
        g_main_context_wakeup(context);
        if (serving.joinable())
            serving.join();
    }

    /// Methods with their arguments, in their order.
    Strings calls() const
    {
        std::scoped_lock lock(mutex);
        return _calls;
    }
    /// Objects of the sessions that were made.
    Strings sessions() const
    {
        std::scoped_lock lock(mutex);
        return _sessions;
    }
    void activate(const std::string &session) const
    {
        GVariantBuilder options;
        g_variant_builder_init(&options, G_VARIANT_TYPE_VARDICT);
        tell(
            portalPath, portalInterface, "Activated", g_variant_new("(osta{sv})", session.c_str(), "any", guint64(17), &options));
    }
    void close(const std::string &session) const
    {
        GVariantBuilder options;
        g_variant_builder_init(&options, G_VARIANT_TYPE_VARDICT);
        tell(session.c_str(), "org.freedesktop.portal.Session", "Closed", g_variant_new("(a{sv})", &options));
    }
    void tell(const char *path, const char *interface, const char *signal, GVariant *values) const
    {
        g_dbus_connection_emit_signal(connection, nullptr, path, interface, signal, values, nullptr);
    }

private:
    void serve(const std::string &address)
    {
        g_main_context_push_thread_default(context);
        connection = g_dbus_connection_new_for_address_sync(address.c_str(),
            static_cast<GDBusConnectionFlags>(
                G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT | G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, nullptr, nullptr);
        publish(portalPath, 0);
        constexpr guint32 doNotQueue = 4;
        g_variant_unref(g_dbus_connection_call_sync(connection, "org.freedesktop.DBus", "/org/freedesktop/DBus",
            "org.freedesktop.DBus", "RequestName", g_variant_new("(su)", portalName, doNotQueue), nullptr, G_DBUS_CALL_FLAGS_NONE,
            -1, nullptr, nullptr));
        while (!ended)
            g_main_context_iteration(context, TRUE);
        g_dbus_connection_close_sync(connection, nullptr, nullptr);
        g_object_unref(connection);
        g_main_context_pop_thread_default(context);
        g_main_context_unref(context);
    }

    void publish(const char *path, int interface)
    {
        static constexpr GDBusInterfaceVTable table{called, version, nullptr, {}};
        g_dbus_connection_register_object(connection, path, nodes->interfaces[interface], &table, this, nullptr, nullptr);
    }

    static GVariant *version(GDBusConnection *, const char *, const char *, const char *, const char *, GError **, gpointer)
    {
        return g_variant_new_uint32(1);
    }

    static void called(GDBusConnection *, const char *sender, const char *path, const char *, const char *method,
        GVariant *arguments, GDBusMethodInvocation *invocation, gpointer data)
    {
        static_cast<MockPortal *>(data)->answer(sender, path, method, arguments, invocation);
    }

    void answer(const std::string &sender, const std::string &path, const std::string &method, GVariant *arguments,
        GDBusMethodInvocation *invocation)
    {
        char *const text = g_variant_print(arguments, FALSE);
        {
            std::scoped_lock lock(mutex);
            _calls.push_back(method == "Close" ? "Close " + path : method + " " + text);
        }
        g_free(text);
        if (method == "Close")
            return g_dbus_method_invocation_return_value(invocation, nullptr);
        GVariant *const options = g_variant_get_child_value(arguments, method == "CreateSession" ? 0 : 3);
        const char *token = "";
        g_variant_lookup(options, "handle_token", "&s", &token);
        std::string client = sender.substr(1);
        std::ranges::replace(client, '.', '_');
        const std::string request = std::string(portalPath) + "/request/" + client + "/" + token;
        // The answer before the return, as it may happen.
        respond(request, method == "CreateSession" ? sessionAnswer(client, token) : bindingAnswer(arguments));
        g_dbus_method_invocation_return_value(invocation, g_variant_new("(o)", request.c_str()));
        g_variant_unref(options);
    }

    void respond(const std::string &request, GVariant *answer) const
    {
        tell(request.c_str(), "org.freedesktop.portal.Request", "Response",
            answers.malformed ? g_variant_new("(s)", "what?") : answer);
        if (answers.malformed)
            g_variant_unref(g_variant_ref_sink(answer));
    }

    GVariant *sessionAnswer(const std::string &client, const std::string &token)
    {
        const std::string session = std::string(portalPath) + "/session/" + client + "/" + token;
        publish(session.c_str(), 1);
        {
            std::scoped_lock lock(mutex);
            _sessions.push_back(session);
        }
        GVariantBuilder results;
        g_variant_builder_init(&results, G_VARIANT_TYPE_VARDICT);
        g_variant_builder_add(&results, "{sv}", "session_handle", g_variant_new_string(session.c_str()));
        return g_variant_new("(ua{sv})", answers.session, &results);
    }

    std::uint32_t bindingCode(GVariant *arguments) const
    {
        char *const asked = g_variant_print(arguments, FALSE);
        const bool refuses = answers.refused && std::string_view(asked).find(answers.refused) != std::string_view::npos;
        g_free(asked);
        return refuses ? 1 : answers.binding;
    }

    GVariant *bindingAnswer(GVariant *arguments) const
    {
        GVariantBuilder results;
        g_variant_builder_init(&results, G_VARIANT_TYPE_VARDICT);
        GVariant *const asked = g_variant_get_child_value(arguments, 1);
        g_variant_builder_add(&results, "{sv}", "shortcuts",
            answers.bindsNothing ? g_variant_new_array(G_VARIANT_TYPE("(sa{sv})"), nullptr, 0) : asked);
        g_variant_unref(asked);
        return g_variant_new("(ua{sv})", bindingCode(arguments), &results);
    }

    const Answers answers;
    GDBusNodeInfo *const nodes;
    GMainContext *const context = g_main_context_new();
    GDBusConnection *connection = nullptr;
    std::atomic<bool> ended{false};
    mutable std::mutex mutex;
    Strings _calls, _sessions;
    std::thread serving;
};

/// It has real threads, but the suite's name does not say so: ThreadSanitizer reports GLib's own.
class PortalHotkeysTest : public testing::Test {
protected:
    ~PortalHotkeysTest() override
    {
        hotkeys.remove();
        loop.shutDown(); // what waits there refers to the pool
        pool.join();
    }
    bool install()
    {
        return hotkeys.install({.pressed = [this] { ++pressed; },
            .granted = [this](const HotkeyConfiguration &which) { granted.push_back(which); },
            .lost =
                [this](const HotkeyConfiguration &which, const HotkeyRegistrationError &why) {
                    refused.push_back(which);
                    lost.push_back(why);
                }});
    }
    bool soon(const std::function<bool()> &truth) { return test::soon(loop, truth); }
    /// Waits until the portal has been asked to bind and the answer has been taken.
    bool binds(const MockPortal &portal, std::size_t count = 1)
    {
        return soon([&] {
            const Strings calls = portal.calls();
            return std::size_t(std::ranges::count_if(calls, [](const std::string &call) {
                return call.starts_with("BindShortcuts");
            })) == count;
        });
    }
    bool isLost(Reason reason, std::int32_t status = 0)
    {
        return soon([this] { return !lost.empty(); }) && lost.size() == 1 && lost[0].reason == reason && lost[0].status == status;
    }
    /// Whether this press is told. One from a session of its own is pressed after it, to know when to look.
    int pressesAfter(const MockPortal &portal, const std::string &session)
    {
        const int before = pressed;
        portal.activate(session);
        HotkeyLease lease = hotkeys.reserve({});
        const std::size_t known = portal.sessions().size();
        if (!soon([&] { return portal.sessions().size() > known; }) || !binds(portal, portal.sessions().size()))
            ADD_FAILURE() << "no second session";
        portal.activate(portal.sessions().back());
        EXPECT_TRUE(soon([&] { return pressed > before; }));
        loop.runUntilIdle();
        return pressed - before - 1;
    }

    PrivateBus bus;
    MainLoop loop;
    ThreadPool pool{1};
    PortalHotkeys hotkeys{loop.executor(), pool.executor(), bus.address(), "Open Korvane"};
    int pressed = 0;
    std::vector<HotkeyRegistrationError> lost;
    std::vector<HotkeyConfiguration> granted, refused;
};

} // namespace

TEST_F(PortalHotkeysTest, AShortcutIsBoundUnderItsDescriptionAndItsPressIsTold)
{
    const MockPortal portal(bus, {});
    ASSERT_TRUE(install());
    const HotkeyLease lease = hotkeys.reserve({});
    ASSERT_TRUE(binds(portal));
    EXPECT_THAT(portal.calls()[1], HasSubstr("'description': <'Open Korvane'>"));
    EXPECT_THAT(portal.calls()[1], HasSubstr("'preferred_trigger': <'ALT+space'>"));
    portal.activate(portal.sessions()[0]);
    EXPECT_TRUE(soon([this] { return pressed == 1; }));
    EXPECT_THAT(lost, IsEmpty());
}

TEST(PortalTrigger, CombinationsAreInTheWordsOfTheDesktops)
{
    using Configuration = HotkeyConfiguration;
    EXPECT_EQ(PortalHotkeys::trigger({.keyCode = 49, .modifiers = Configuration::command}), "LOGO+space");
    EXPECT_EQ(
        PortalHotkeys::trigger({.keyCode = 40, .modifiers = Configuration::control | Configuration::shift}), "CTRL+SHIFT+k");
    EXPECT_EQ(
        PortalHotkeys::trigger({.keyCode = 36, .modifiers = Configuration::control | Configuration::option}), "CTRL+ALT+Return");
}

TEST_F(PortalHotkeysTest, OtherKeysAreAnotherShortcutToTheDesktopThatRemembersThem)
{
    const MockPortal portal(bus, {});
    ASSERT_TRUE(install());
    HotkeyLease lease = hotkeys.reserve({});
    ASSERT_TRUE(binds(portal));
    lease = hotkeys.reserve({.keyCode = 40, .modifiers = HotkeyConfiguration::command});
    ASSERT_TRUE(binds(portal, 2));
    EXPECT_THAT(portal.calls()[1], HasSubstr("'palette-49-2048'"));
    ASSERT_TRUE(soon([&] { return portal.calls().size() == 5; }));
    EXPECT_THAT(testing::PrintToString(portal.calls()), HasSubstr("'palette-40-256'"));
}

TEST_F(PortalHotkeysTest, WithoutASessionBusThereAreNoShortcuts)
{
    PortalHotkeys nowhere(loop.executor(), pool.executor(), "", "Open Korvane");
    EXPECT_FALSE(nowhere.install({}));
}

TEST_F(PortalHotkeysTest, ADesktopWithoutThePortalTakesEveryLeaseBackOnce)
{
    ASSERT_TRUE(install());
    const HotkeyLease first = hotkeys.reserve({});
    EXPECT_TRUE(isLost(Reason::unavailable));
    loop.runUntilIdle();
    EXPECT_THAT(lost, SizeIs(1));
    lost.clear();
    const HotkeyLease second = hotkeys.reserve({});
    EXPECT_TRUE(isLost(Reason::unavailable));
    loop.runUntilIdle();
    EXPECT_THAT(lost, SizeIs(1));
}

TEST_F(PortalHotkeysTest, APortalThatComesLateServesTheNextLease)
{
    ASSERT_TRUE(install());
    HotkeyLease lease = hotkeys.reserve({});
    ASSERT_TRUE(isLost(Reason::unavailable));
    lease.release();
    const MockPortal portal(bus, {});
    lease = hotkeys.reserve({});
    ASSERT_TRUE(binds(portal));
    portal.activate(portal.sessions()[0]);
    EXPECT_TRUE(soon([this] { return pressed == 1; }));
    EXPECT_THAT(lost, SizeIs(1));
}

TEST_F(PortalHotkeysTest, TheUsersNoIsARejection)
{
    const MockPortal portal(bus, {.binding = 1});
    ASSERT_TRUE(install());
    const HotkeyLease lease = hotkeys.reserve({});
    EXPECT_TRUE(isLost(Reason::rejected, 1));
    EXPECT_TRUE(soon([&] { return portal.calls().back() == "Close " + portal.sessions()[0]; }));
}

TEST_F(PortalHotkeysTest, APortalThatBindsNothingHasRejectedTheShortcut)
{
    const MockPortal portal(bus, {.bindsNothing = true});
    ASSERT_TRUE(install());
    const HotkeyLease lease = hotkeys.reserve({});
    EXPECT_TRUE(isLost(Reason::rejected, 2));
}

TEST_F(PortalHotkeysTest, AShortcutThatTheUserAllowsIsGranted)
{
    const MockPortal portal(bus, {});
    ASSERT_TRUE(install());
    const HotkeyLease lease = hotkeys.reserve({});
    ASSERT_TRUE(soon([this] { return !granted.empty(); }));
    EXPECT_THAT(granted, ElementsAre(HotkeyConfiguration()));
}

TEST_F(PortalHotkeysTest, AKeyThatTheUserRefusesLeavesTheOldOneAtWork)
{
    const HotkeyConfiguration superK{.keyCode = 40, .modifiers = HotkeyConfiguration::command};
    const MockPortal portal(bus, {.refused = "LOGO+k"});
    std::vector<HotkeyConfiguration> told;
    HotkeyService service(
        hotkeys, [this] { ++pressed; },
        [&](const HotkeyConfiguration &which, const HotkeyRegistrationError &) { told.push_back(which); });
    service.registerHotkey({});
    ASSERT_TRUE(binds(portal));
    service.registerHotkey(superK);
    ASSERT_TRUE(soon([&] { return !told.empty(); }));
    EXPECT_THAT(told, ElementsAre(superK));
    EXPECT_EQ(service.configuration(), HotkeyConfiguration());
    ASSERT_TRUE(soon([&] { return portal.calls().back() == "Close " + portal.sessions()[1]; }));
    portal.activate(portal.sessions()[0]);
    EXPECT_TRUE(soon([this] { return pressed == 1; }));
}

TEST_F(PortalHotkeysTest, APortalThatEndsTakesEveryShortcutAlong)
{
    const HotkeyConfiguration superK{.keyCode = 40, .modifiers = HotkeyConfiguration::command};
    MockPortal portal(bus, {});
    ASSERT_TRUE(install());
    const HotkeyLease first = hotkeys.reserve({}), second = hotkeys.reserve(superK);
    ASSERT_TRUE(soon([this] { return granted.size() == 2; }));
    portal.leave();
    ASSERT_TRUE(soon([this] { return refused.size() == 2; }));
    EXPECT_THAT(refused, ElementsAre(HotkeyConfiguration(), superK));
}

TEST_F(PortalHotkeysTest, APortalThatGivesNoSessionHasNoShortcuts)
{
    const MockPortal portal(bus, {.session = 2});
    ASSERT_TRUE(install());
    const HotkeyLease lease = hotkeys.reserve({});
    EXPECT_TRUE(isLost(Reason::unavailable));
}

TEST_F(PortalHotkeysTest, ASessionThatTheDesktopClosesIsLostOnce)
{
    const MockPortal portal(bus, {});
    ASSERT_TRUE(install());
    const HotkeyLease lease = hotkeys.reserve({});
    ASSERT_TRUE(binds(portal));
    portal.close("/some/other/session");
    portal.close(portal.sessions()[0]);
    EXPECT_TRUE(isLost(Reason::unavailable));
    EXPECT_EQ(pressesAfter(portal, portal.sessions()[0]), 0);
    EXPECT_THAT(lost, SizeIs(1));
}

TEST_F(PortalHotkeysTest, APortalThatEndsTakesTheShortcutAlong)
{
    MockPortal portal(bus, {});
    ASSERT_TRUE(install());
    const HotkeyLease lease = hotkeys.reserve({});
    ASSERT_TRUE(binds(portal));
    portal.leave();
    EXPECT_TRUE(isLost(Reason::unavailable));
}

TEST_F(PortalHotkeysTest, AReleasedLeaseClosesItsSessionAndItsPressIsNotTold)
{
    const MockPortal portal(bus, {});
    ASSERT_TRUE(install());
    HotkeyLease lease = hotkeys.reserve({});
    ASSERT_TRUE(binds(portal));
    portal.activate(portal.sessions()[0]);
    ASSERT_TRUE(soon([this] { return pressed == 1; }));
    lease.release();
    EXPECT_TRUE(soon([&] { return portal.calls().back() == "Close " + portal.sessions()[0]; }));
    EXPECT_EQ(pressesAfter(portal, portal.sessions()[0]), 0);
}

TEST_F(PortalHotkeysTest, AnswersThatMakeNoSenseAreNoAnswers)
{
    MockPortal portal(bus, {.malformed = true});
    ASSERT_TRUE(install());
    const HotkeyLease lease = hotkeys.reserve({});
    ASSERT_TRUE(soon([&] { return !portal.calls().empty(); }));
    portal.tell(portalPath, portalInterface, "Activated", g_variant_new("(s)", "what?"));
    portal.tell(portalPath, "org.freedesktop.portal.Session", "Closed", g_variant_new("(s)", "what?"));
    portal.leave(); // what comes after it shows that the rest has been seen
    EXPECT_TRUE(isLost(Reason::unavailable));
    EXPECT_EQ(pressed, 0);
}

TEST(LinuxHotkeys, UnderWaylandThePortalIsAskedAndElseTheDisplay)
{
    MainLoop loop;
    ThreadPool pool(1);
    ManualClock clock(loop);
    const auto installs = [&](std::map<std::string, std::string, std::less<>> variables) {
        const Environment environment = [&](std::string_view name) -> std::optional<std::string> {
            const auto found = variables.find(name);
            return found == variables.end() ? std::nullopt : std::optional(found->second);
        };
        LinuxHotkeys hotkeys(loop.executor(), pool.executor(), clock, environment, "Open Korvane");
        const bool installed = hotkeys.install({});
        EXPECT_EQ(hotkeys.claimKeys(), 0U);
        hotkeys.letKeysThrough();
        hotkeys.remove();
        return installed;
    };
    EXPECT_FALSE(installs({{"DISPLAY", ":4711"}, {"DBUS_SESSION_BUS_ADDRESS", "unix:path=/nowhere"}}));
    EXPECT_TRUE(
        installs({{"WAYLAND_DISPLAY", "wayland-0"}, {"DISPLAY", ":4711"}, {"DBUS_SESSION_BUS_ADDRESS", "unix:path=/nowhere"}}))
        << "the portal, which is found missing later";
    loop.shutDown();
    pool.join();
}
