#pragma once

#include <stop_token>
#include <string>

namespace korvane {

/// The user's store of secrets, by service and account. Every operation blocks, for ten seconds at most and for a minute where
/// the user is asked to unlock it, and ends as `failed` soon after `stop`. Any thread, one at a time. None of them shows a secret
/// to anybody else.
class SecretStore {
public:
    virtual ~SecretStore() = default;

    struct Item {
        std::string service, account;
        bool operator==(const Item &) const = default;
    };
    enum class Outcome {
        done,
        absent, ///< The store has no such item.
        locked, ///< The user did not unlock it.
        denied,
        noService, ///< Nothing keeps secrets here.
        failed ///< Whatever else, a time-out too.
    };
    struct Secret {
        Outcome outcome = Outcome::failed;
        std::string bytes = {}; ///< When done.
    };
    virtual Secret read(const Item &item, std::stop_token stop) = 0;
    /// Gives an item that is there another secret; its access rights stay.
    virtual Outcome update(const Item &item, const std::string &bytes, std::stop_token stop) = 0;
    /// Adds an item that is not there. It never leaves this machine.
    virtual Outcome add(const Item &item, const std::string &bytes, std::stop_token stop) = 0;
    virtual Outcome remove(const Item &item, std::stop_token stop) = 0;
};

} // namespace korvane
