#include "Vorrel/Platform/Linux/LinuxSecretStore.h"

#include "tests/Vorrel/Platform/Linux/PrivateBus.h"
#include "tests/support/DiskFolder.h"

#include <gio/gio.h>
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <thread>
#include <unistd.h>

using namespace korvane;
using namespace korvane::test;
using Outcome = SecretStore::Outcome;
using Time = std::chrono::steady_clock;

namespace {

constexpr const char *service = "org.freedesktop.secrets";
const SecretStore::Item ada{"dev.korvane.vorrel", "ada"};

/// Makes `address` the session's bus of this process, which the library finds by itself.
struct SessionBus {
    explicit SessionBus(const std::string &address) { ::setenv("DBUS_SESSION_BUS_ADDRESS", address.c_str(), 1); }
    ~SessionBus() { ::unsetenv("DBUS_SESSION_BUS_ADDRESS"); }
};

/// A real keyring on a bus of its own, unlocked with an empty password.
struct Keyring : testing::Test {
    Keyring()
    {
        std::string pattern = (std::filesystem::temp_directory_path() / "korvane-keyring-XXXXXX").string();
        folder = ::mkdtemp(pattern.data());
        daemon = std::make_unique<Process>(
            std::vector<std::string>{
                "/bin/sh", "-c", "printf '\\n' | exec gnome-keyring-daemon --unlock --components=secrets --foreground"},
            std::vector<std::string>{"DBUS_SESSION_BUS_ADDRESS=" + bus.address(), "HOME=" + folder, "XDG_RUNTIME_DIR=" + folder,
                "XDG_DATA_HOME=" + folder + "/data", "XDG_CACHE_HOME=" + folder + "/cache", "LD_PRELOAD="});
        bus.waitFor(service);
        store.emplace(bus.address(), LinuxSecretStore::Limits{Milliseconds(5000), Milliseconds(300)});
    }
    ~Keyring() override
    {
        daemon.reset();
        std::filesystem::remove_all(folder);
    }

    void lock() const
    {
        const char *const collection[] = {"/org/freedesktop/secrets/aliases/default", nullptr};
        bus.call(
            service, "/org/freedesktop/secrets", "org.freedesktop.Secret.Service", "Lock", g_variant_new("(^ao)", collection));
    }
    std::string read(const SecretStore::Item &item) const
    {
        const SecretStore::Secret secret = store->read(item, {});
        return secret.outcome == Outcome::done ? secret.bytes : "";
    }
    std::size_t items() const
    {
        const auto answer = bus.call(service, "/org/freedesktop/secrets/aliases/default", "org.freedesktop.DBus.Properties",
            "Get", g_variant_new("(ss)", "org.freedesktop.Secret.Collection", "Items"));
        GVariant *paths = nullptr;
        g_variant_get(answer.get(), "(v)", &paths);
        const std::size_t count = g_variant_n_children(paths);
        g_variant_unref(paths);
        return count;
    }

    const PrivateBus bus;
    const SessionBus session{bus.address()};
    std::string folder;
    std::unique_ptr<Process> daemon;
    mutable std::optional<LinuxSecretStore> store;
};

} // namespace

TEST_F(Keyring, ASecretIsAddedReadReplacedAndRemoved)
{
    EXPECT_EQ(store->add(ada, "first ✓", {}), Outcome::done);
    EXPECT_EQ(read(ada), "first ✓");
    EXPECT_EQ(store->update(ada, "second", {}), Outcome::done);
    EXPECT_EQ(read(ada), "second");
    EXPECT_EQ(items(), 1u) << "there is one item";
    EXPECT_EQ(store->remove(ada, {}), Outcome::done);
    EXPECT_EQ(items(), 0u);
}

TEST_F(Keyring, WhatIsNotThereIsAbsentForEveryOperationOnIt)
{
    EXPECT_EQ(store->read(ada, {}).outcome, Outcome::absent);
    EXPECT_EQ(store->update(ada, "new", {}), Outcome::absent);
    EXPECT_EQ(store->remove(ada, {}), Outcome::absent);
    EXPECT_EQ(items(), 0u);
}

TEST_F(Keyring, AccountsAndServicesAreApart)
{
    const SecretStore::Item bob{ada.service, "bob"}, other{"another service", ada.account};
    EXPECT_EQ(store->add(ada, "of ada", {}), Outcome::done);
    EXPECT_EQ(store->read(bob, {}).outcome, Outcome::absent);
    EXPECT_EQ(store->read(other, {}).outcome, Outcome::absent);
    EXPECT_EQ(store->add(bob, "of bob", {}), Outcome::done);
    EXPECT_EQ(read(ada), "of ada");
}

TEST_F(Keyring, ALockedKeyringThatNobodyUnlocksIsLockedAndNotAbsent)
{
    ASSERT_EQ(store->add(ada, "kept", {}), Outcome::done);
    lock();
    // Nobody can be asked here: the prompter is missing, which is the same as a user who does not answer.
    EXPECT_EQ(store->read(ada, {}).outcome, Outcome::locked);
    EXPECT_EQ(store->update(ada, "new", {}), Outcome::locked);
    EXPECT_EQ(store->remove(ada, {}), Outcome::locked);
}

TEST(SecretStoreWithoutService, NothingKeepsSecretsThere)
{
    const PrivateBus bus;
    for (const std::string &address : {bus.address(), std::string(), std::string("unix:path=/nonexistent/bus")}) {
        const SessionBus session(address);
        LinuxSecretStore store(address);
        EXPECT_EQ(store.read(ada, {}).outcome, Outcome::noService) << address;
        EXPECT_EQ(store.update(ada, "new", {}), Outcome::noService);
        EXPECT_EQ(store.add(ada, "new", {}), Outcome::noService);
        EXPECT_EQ(store.remove(ada, {}), Outcome::noService);
    }
}

namespace {

/// A service that takes calls and never answers.
struct MuteService {
    explicit MuteService(const PrivateBus &bus) :
        process({"/usr/bin/python3", "-c",
                    "import dbus, time\n"
                    "bus = dbus.SessionBus()\n"
                    "name = bus.request_name('org.freedesktop.secrets')\n"
                    "time.sleep(60)\n"},
            {"DBUS_SESSION_BUS_ADDRESS=" + bus.address(), "LD_PRELOAD=", "PYTHONDONTWRITEBYTECODE=1"})
    {
        bus.waitFor(service);
    }
    const Process process;
};

} // namespace

namespace {

/// A service with one locked item. It asks for its password and waits for ever, denies everything, or hangs in the first call;
/// what was done to it is noted in a file.
struct StubbornService {
    StubbornService(const PrivateBus &bus, const std::string &mode) :
        process({"/usr/bin/python3", "-c", program, mode, notes()},
            {"DBUS_SESSION_BUS_ADDRESS=" + bus.address(), "LD_PRELOAD=", "PYTHONDONTWRITEBYTECODE=1"})
    {
        bus.waitFor(service);
    }
    std::string notes() const { return folder / "notes"; }
    std::string noted() const
    {
        std::ifstream file(notes());
        return {std::istreambuf_iterator<char>(file), {}};
    }

    static constexpr const char *program = R"python(
import sys, time
import dbus, dbus.service, dbus.mainloop.glib
from gi.repository import GLib

mode, notes = sys.argv[1:]
base, interface = "/org/freedesktop/secrets", "org.freedesktop.Secret."
item, prompt = base + "/collection/a/1", base + "/prompt/p"


def note(word):
    with open(notes, "a") as file:
        file.write(word + " ")


def deny():
    if mode == "denies":
        raise dbus.exceptions.DBusException("no", name="org.freedesktop.DBus.Error.AccessDenied")


class Thing(dbus.service.Object):
    @dbus.service.method("org.freedesktop.DBus.Properties", in_signature="s", out_signature="a{sv}")
    def GetAll(self, of):
        attributes = dbus.Dictionary({"service": "dev.korvane.vorrel", "account": "ada"}, signature="ss")
        return {"Locked": True, "Label": "a secret", "Attributes": attributes} if of.endswith("Item") else {}

    @dbus.service.method(interface + "Service", in_signature="sv", out_signature="vo")
    def OpenSession(self, algorithm, _):
        if mode == "hangs":
            note("called")
            time.sleep(60)
        if algorithm != "plain":
            raise dbus.exceptions.DBusException("no", name="org.freedesktop.DBus.Error.NotSupported")
        return dbus.String("", variant_level=1), dbus.ObjectPath(base + "/session/s")

    @dbus.service.method(interface + "Service", in_signature="a{ss}", out_signature="aoao")
    def SearchItems(self, _):
        deny()
        return [], [dbus.ObjectPath(item)]

    @dbus.service.method(interface + "Service", in_signature="ao", out_signature="aoo")
    def Unlock(self, _):
        return [], dbus.ObjectPath(prompt)

    @dbus.service.method(interface + "Collection", in_signature="a{sv}(oayays)b", out_signature="oo")
    def CreateItem(self, _, secret, replace):
        deny()
        return dbus.ObjectPath("/"), dbus.ObjectPath(prompt)

    @dbus.service.method(interface + "Prompt", in_signature="s")
    def Prompt(self, _):
        note("asked")

    @dbus.service.method(interface + "Prompt")
    def Dismiss(self):
        note("withdrawn")
        self.Completed(True, dbus.String("", variant_level=1))

    @dbus.service.signal(interface + "Prompt", signature="bv")
    def Completed(self, dismissed, result):
        pass


dbus.mainloop.glib.DBusGMainLoop(set_as_default=True)
bus = dbus.SessionBus()
things = [Thing(bus, path) for path in (base, item, prompt, base + "/aliases/default")]
name = dbus.service.BusName("org.freedesktop.secrets", bus)
GLib.MainLoop().run()
)python";

    const DiskFolder folder;
    const Process process;
};

} // namespace

TEST(SecretStoreAsks, AQuestionForThePasswordThatNobodyAnswersIsWithdrawnAndTheKeyringIsLocked)
{
    const PrivateBus bus;
    const SessionBus session(bus.address());
    const StubbornService asking(bus, "asks");
    LinuxSecretStore store(bus.address(), {Milliseconds(5000), Milliseconds(300)});
    EXPECT_EQ(store.read(ada, {}).outcome, Outcome::locked);
    EXPECT_EQ(asking.noted(), "asked withdrawn ");
    EXPECT_EQ(store.add(ada, "new", {}), Outcome::locked);
    EXPECT_EQ(asking.noted(), "asked withdrawn asked withdrawn ");
}

TEST(SecretStoreAsks, AServiceThatDeniesIsToldApartFromALockedOne)
{
    const PrivateBus bus;
    const SessionBus session(bus.address());
    const StubbornService denying(bus, "denies");
    LinuxSecretStore store(bus.address(), {Milliseconds(5000), Milliseconds(300)});
    EXPECT_EQ(store.read(ada, {}).outcome, Outcome::denied);
    EXPECT_EQ(store.update(ada, "new", {}), Outcome::denied);
    EXPECT_EQ(store.add(ada, "new", {}), Outcome::denied);
    EXPECT_EQ(store.remove(ada, {}), Outcome::denied);
    EXPECT_EQ(denying.noted(), "");
}

TEST(SecretStoreThatHangs, AServiceThatNeverAnswersIsGivenUpAfterTheTimeLimit)
{
    const PrivateBus bus;
    const SessionBus session(bus.address());
    const MuteService mute(bus);
    LinuxSecretStore store(bus.address(), {Milliseconds(200), Milliseconds(200)});
    const auto start = Time::now();
    EXPECT_EQ(store.read(ada, {}).outcome, Outcome::failed);
    EXPECT_GE(Time::now() - start, Milliseconds(200));
    EXPECT_LT(Time::now() - start, Milliseconds(2000));
}

TEST(SecretStoreThreads, AWaitForTheServiceEndsWhenItIsStoppedFromAnotherThread)
{
    const PrivateBus bus;
    const SessionBus session(bus.address());
    const StubbornService hanging(bus, "hangs");
    LinuxSecretStore store(bus.address());
    std::stop_source source;
    std::thread stopping([&] {
        while (hanging.noted().empty())
            std::this_thread::yield();
        source.request_stop();
    });
    const auto start = Time::now();
    EXPECT_EQ(store.read(ada, source.get_token()).outcome, Outcome::failed);
    EXPECT_LT(Time::now() - start, Milliseconds(2000)) << "and not after ten seconds";
    stopping.join();
}
