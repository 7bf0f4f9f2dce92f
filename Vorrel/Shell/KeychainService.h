#pragma once

#include "Support/Task.h"
#include "Vorrel/Platform/SecretStore.h"

#include <memory>
#include <optional>
#include <string>

namespace korvane {

/// The only place where secrets are kept: the key of the model's provider, and what MCP servers are given.
///
/// Works off the caller's thread, one operation after the other. A caller that is cancelled gets `Cancelled` at once; a change
/// that had begun may then have happened or not. Why something failed stands in the log, without account and secret.
class KeychainService {
public:
    /// `store` outlives the service and what it runs on `pool`; without one every operation fails as where no service is.
    KeychainService(Executor pool, SecretStore *store, std::string service = "dev.korvane.vorrel");

    /// Puts the secret under the account, in place of an earlier one; an empty one removes it. Throws `permission` "The secret
    /// could not be saved to Keychain." when it cannot be added, "Keychain access was denied." for other failures, and what
    /// `deleteAccount` throws.
    Task<void> set(std::string value, std::string account);
    /// The secret; nothing when there is none or it is no UTF-8. Throws `permission` "Keychain access was denied."
    Task<std::optional<std::string>> get(std::string account);
    /// Removes the secret; that there is none is no failure. Throws `permission` "The Keychain item could not be removed."
    Task<void> deleteAccount(std::string account);

    static constexpr const char *providerAccount = "ai.openai";

private:
    /// Shared with operations whose caller has gone.
    struct State;
    const std::shared_ptr<State> state;
};

} // namespace korvane
