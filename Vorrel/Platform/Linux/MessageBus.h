#pragma once

#include "Support/Clock.h"

#include <functional>
#include <memory>
#include <stop_token>
#include <string>
#include <vector>

typedef struct _GDBusConnection GDBusConnection;
typedef struct _GVariant GVariant;
typedef struct _GError GError;

namespace korvane {

/// Where a call goes.
struct BusObject {
    std::string service;
    std::string path;
    std::string interface;
};

/// What came of a call.
struct BusReply {
    enum class Outcome {
        done,
        refused, ///< The service said no, or failed.
        late, ///< The service has not answered in time.
        absent ///< There is no such service, or it does not know what it was asked.
    };
    Outcome outcome = Outcome::absent;
    std::shared_ptr<GVariant> values = {}; ///< The tuple that the service returned; only when done.
};

/// What a service tells everybody or, by itself, this connection.
struct BusSignal {
    std::string path;
    std::string interface;
    std::string member;
    std::shared_ptr<GVariant> values; ///< A tuple.
};

/// A private connection to a message bus (D-Bus). Every operation blocks, none longer than the limit given to
/// `open`, and ends early when the token given there stops. Any thread, one at a time.
class MessageBus {
public:
    /// Null when nobody answers at `address`.
    static std::unique_ptr<MessageBus> open(const std::string &address, Milliseconds limit, std::stop_token stop = {});
    ~MessageBus();
    MessageBus(const MessageBus &) = delete;
    MessageBus &operator=(const MessageBus &) = delete;

    /// Calls `method`. Takes over `arguments`, a floating tuple or null.
    BusReply call(const BusObject &object, const char *method, GVariant *arguments);
    /// Sends a signal without arguments to whoever listens. True once the bus has it.
    bool emit(const std::string &path, const std::string &interface, const std::string &member);
    /// Gives `told` the signals that fit one of the bus's match rules, for as long as the connection lives, and does so on a
    /// thread of the library's. To be called once. True once the bus knows all the rules.
    bool listen(const std::vector<std::string> &rules, std::function<void(BusSignal)> told);
    /// The connection's own name on the bus, such as ":1.42".
    std::string name() const;
    /// Whether an error of the library (a `GError`) says that there is no such service, or that it does not know what it was
    /// asked.
    static bool meansAbsent(const GError *error);

private:
    class Stop;
    MessageBus(GDBusConnection *connection, Milliseconds limit, std::stop_token stop) :
        connection(connection), limit(limit), stop(std::move(stop))
    {
    }

    GDBusConnection *const connection;
    const Milliseconds limit;
    const std::stop_token stop;
};

} // namespace korvane
