#pragma once

#include <memory>
#include <string>
#include <sys/types.h>
#include <vector>

typedef struct _GDBusConnection GDBusConnection;
typedef struct _GVariant GVariant;

namespace korvane::test {

/// A program that a test has started; killed at the end.
class Process {
public:
    /// Its standard output goes to `output`, or nowhere for -1. `variables` are "NAME=value", beside the test's own.
    Process(std::vector<std::string> command, std::vector<std::string> variables, int output = -1);
    ~Process();
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;

private:
    pid_t child;
};

/// A message bus of the test's own, which starts no services by itself.
class PrivateBus {
public:
    PrivateBus();
    ~PrivateBus();

    /// Empty when the bus could not be started; that fails the test.
    const std::string &address() const { return _address; }
    /// Calls a method of the service `name` and gives its results; null, and a failed test, when that failed.
    std::shared_ptr<GVariant> call(const std::string &name, const std::string &path, const std::string &interface,
        const std::string &method, GVariant *arguments) const;
    /// Waits until `name` has an owner. False, and a failed test, after ten seconds.
    bool waitFor(const std::string &name) const;
    GDBusConnection *connection() const { return _connection; }

private:
    std::string folder;
    std::string _address;
    std::unique_ptr<Process> daemon;
    GDBusConnection *_connection = nullptr;
};

/// A service on a private bus that does what it is told and remembers its calls.
class MockService {
public:
    MockService(const PrivateBus &bus, std::string name, std::string path, std::string interface);

    /// Adds a method; `code` is Python. `path` is another object of the service's, added before.
    void method(const std::string &name, const std::string &in, const std::string &out, const std::string &code = "");
    /// The same for a method that the service does not let this caller use.
    void refuse(const std::string &name, const std::string &in);
    /// Adds an object with one method without arguments.
    void object(const std::string &path, const std::string &interface, const std::string &method) const;
    /// The calls of a method so far, each as the list of its arguments: "[]", "['a', 1]".
    std::vector<std::string> calls(const std::string &method) const { return calls(path, method); }
    std::vector<std::string> calls(const std::string &path, const std::string &method) const;

private:
    const PrivateBus &bus;
    const std::string name, path, interface;
    const Process process;
};

} // namespace korvane::test
