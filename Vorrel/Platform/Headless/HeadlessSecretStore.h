#pragma once

#include "Vorrel/Platform/SecretStore.h"

#include <map>
#include <mutex>
#include <optional>
#include <vector>

namespace korvane {

/// Secrets in memory. Any operation can be told how to end. Any thread.
class HeadlessSecretStore final : public SecretStore {
public:
    Secret read(const Item &item, std::stop_token stop) override;
    Outcome update(const Item &item, const std::string &bytes, std::stop_token stop) override;
    Outcome add(const Item &item, const std::string &bytes, std::stop_token stop) override;
    Outcome remove(const Item &item, std::stop_token stop) override;

    // Set before use: how an operation ends, without doing anything, instead of as the items have it
    std::optional<Outcome> readOutcome, updateOutcome, addOutcome, removeOutcome;
    /// Reads wait until they are stopped, as for a user who does not answer.
    bool readsHang = false;

    /// What is kept, by account. Of one service: the tests use no other.
    std::map<std::string, std::string> items() const;
    void keep(const std::string &account, const std::string &bytes);
    /// "read", "update", "add" and "remove", each with a blank, the service, a slash and the account; in their order.
    std::vector<std::string> requests() const;

private:
    void note(const char *what, const Item &item);

    mutable std::mutex mutex;
    std::map<std::string, std::string> _items;
    std::vector<std::string> _requests;
};

} // namespace korvane
