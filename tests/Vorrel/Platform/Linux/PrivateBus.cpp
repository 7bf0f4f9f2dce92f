#include "tests/Vorrel/Platform/Linux/PrivateBus.h"

#include "Support/Descriptor.h"

#include <gio/gio.h>
#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace korvane::test {

namespace fs = std::filesystem;

namespace {

constexpr int answerLimit = 10'000; // milliseconds

std::vector<char *> pointers(std::vector<std::string> &texts)
{
    std::vector<char *> pointers;
    for (auto &text : texts)
        pointers.push_back(text.data());
    pointers.push_back(nullptr);
    return pointers;
}

std::vector<std::string> environmentWith(const std::vector<std::string> &variables)
{
    std::vector<std::string> all = variables; // the first of two counts
    for (char **variable = environ; *variable; ++variable)
        all.emplace_back(*variable);
    return all;
}

std::string firstLine(const Descriptor &pipe)
{
    std::string line;
    pollfd ready{pipe.get(), POLLIN, 0};
    char byte = 0;
    while (::poll(&ready, 1, answerLimit) == 1 && ::read(pipe.get(), &byte, 1) == 1 && byte != '\n')
        line.push_back(byte);
    return line;
}

constexpr char bareBus[] = R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig><type>session</type><keep_umask/><listen>unix:tmpdir=/tmp</listen><auth>EXTERNAL</auth>
<policy context="default"><allow send_destination="*" eavesdrop="true"/><allow eavesdrop="true"/><allow own="*"/></policy></busconfig>
)";

} // namespace

Process::Process(std::vector<std::string> command, std::vector<std::string> variables, int output) : child(0)
{
    auto environment = environmentWith(variables);
    posix_spawn_file_actions_t files;
    ::posix_spawn_file_actions_init(&files);
    ::posix_spawn_file_actions_addopen(&files, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    if (output >= 0)
        ::posix_spawn_file_actions_adddup2(&files, output, STDOUT_FILENO);
    else
        ::posix_spawn_file_actions_addopen(&files, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    const int error =
        ::posix_spawnp(&child, command[0].c_str(), &files, nullptr, pointers(command).data(), pointers(environment).data());
    ::posix_spawn_file_actions_destroy(&files);
    if (error != 0) {
        child = 0;
        ADD_FAILURE() << command[0] << " could not be started: " << std::generic_category().message(error);
    }
}

Process::~Process()
{
    if (child > 0) {
        ::kill(child, SIGKILL);
        ::waitpid(child, nullptr, 0);
    }
}

PrivateBus::PrivateBus()
{
    std::string pattern = (fs::temp_directory_path() / "korvane-bus-XXXXXX").string();
    folder = ::mkdtemp(pattern.data());
    std::ofstream(fs::path(folder) / "bus.conf") << bareBus;

    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0)
        return;
    const Descriptor read(ends[0]);
    Descriptor write(ends[1]);
    daemon = std::make_unique<Process>(std::vector<std::string>{"dbus-daemon", "--nofork", "--nopidfile", "--print-address=1",
                                           "--config-file=" + folder + "/bus.conf"},
        std::vector<std::string>(), write.get());
    write.reset();
    _address = firstLine(read);
    GError *error = nullptr;
    _connection = g_dbus_connection_new_for_address_sync(_address.c_str(),
        static_cast<GDBusConnectionFlags>(
            G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT | G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, &error);
    if (!_connection) {
        ADD_FAILURE() << "no private bus: " << error->message;
        g_error_free(error);
    }
}

PrivateBus::~PrivateBus()
{
    if (_connection) {
        g_dbus_connection_close_sync(_connection, nullptr, nullptr);
        g_object_unref(_connection);
    }
    daemon.reset();
    fs::remove_all(folder);
}

std::shared_ptr<GVariant> PrivateBus::call(const std::string &name, const std::string &path, const std::string &interface,
    const std::string &method, GVariant *arguments) const
{
    if (!_connection)
        return nullptr;
    GError *error = nullptr;
    GVariant *const values = g_dbus_connection_call_sync(_connection, name.c_str(), path.c_str(), interface.c_str(),
        method.c_str(), arguments, nullptr, G_DBUS_CALL_FLAGS_NONE, answerLimit, nullptr, &error);
    if (values)
        return {values, g_variant_unref};
    ADD_FAILURE() << method << ": " << error->message;
    g_error_free(error);
    return nullptr;
}

bool PrivateBus::waitFor(const std::string &name) const
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(answerLimit);
    while (std::chrono::steady_clock::now() < deadline) {
        const auto answer = call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "NameHasOwner",
            g_variant_new("(s)", name.c_str()));
        if (!answer)
            return false;
        gboolean owned = FALSE;
        g_variant_get(answer.get(), "(b)", &owned);
        if (owned)
            return true;
        ::poll(nullptr, 0, 10);
    }
    ADD_FAILURE() << name << " did not come; is python3-dbusmock installed?";
    return false;
}

MockService::MockService(const PrivateBus &bus, std::string name, std::string path, std::string interface) :
    bus(bus), name(std::move(name)), path(std::move(path)), interface(std::move(interface)),
    process({"/usr/bin/python3", "-m", "dbusmock", "--session", this->name, this->path, this->interface},
        {"DBUS_SESSION_BUS_ADDRESS=" + bus.address(), "LD_PRELOAD=", "PYTHONDONTWRITEBYTECODE=1"})
{
    bus.waitFor(this->name);
}

void MockService::method(const std::string &method, const std::string &in, const std::string &out, const std::string &code)
{
    bus.call(name, path, "org.freedesktop.DBus.Mock", "AddMethod",
        g_variant_new("(sssss)", interface.c_str(), method.c_str(), in.c_str(), out.c_str(), code.c_str()));
}

void MockService::refuse(const std::string &method, const std::string &in)
{
    this->method(method, in, "", "raise dbus.exceptions.DBusException('no', name='org.freedesktop.DBus.Error.AccessDenied')");
}

void MockService::object(const std::string &path, const std::string &interface, const std::string &method) const
{
    GVariantBuilder properties, methods;
    g_variant_builder_init(&properties, G_VARIANT_TYPE("a{sv}"));
    g_variant_builder_init(&methods, G_VARIANT_TYPE("a(ssss)"));
    g_variant_builder_add(&methods, "(ssss)", method.c_str(), "", "", "");
    bus.call(name, this->path, "org.freedesktop.DBus.Mock", "AddObject",
        g_variant_new("(ssa{sv}a(ssss))", path.c_str(), interface.c_str(), &properties, &methods));
}

std::vector<std::string> MockService::calls(const std::string &path, const std::string &method) const
{
    const auto answer = bus.call(name, path, "org.freedesktop.DBus.Mock", "GetMethodCalls", g_variant_new("(s)", method.c_str()));
    std::vector<std::string> calls;
    if (!answer)
        return calls;
    GVariantIter *entries = nullptr;
    g_variant_get(answer.get(), "(a(tav))", &entries);
    GVariant *arguments = nullptr;
    while (g_variant_iter_next(entries, "(t@av)", nullptr, &arguments)) {
        char *const text = g_variant_print(arguments, FALSE);
        calls.emplace_back(text);
        g_free(text);
        g_variant_unref(arguments);
    }
    g_variant_iter_free(entries);
    return calls;
}

} // namespace korvane::test
