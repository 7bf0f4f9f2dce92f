#pragma once

#include "Support/Clock.h"
#include "Vorrel/Platform/SecretStore.h"

#include <string>

namespace korvane {

/// The keyring of the user's session, through its Secret Service, by the attributes "service" and "account". New items go to the
/// default collection. Speaks to nobody before the first operation.
class LinuxSecretStore final : public SecretStore {
public:
    struct Limits {
        Milliseconds call{10'000}; ///< What the service may take for one answer.
        Milliseconds prompt{60'000}; ///< What the user may take to unlock the keyring, or to make one.
    };

    /// `address` is that of the session's bus, as this process's environment names it; empty where there is none.
    explicit LinuxSecretStore(std::string address) : LinuxSecretStore(std::move(address), Limits()) { }
    LinuxSecretStore(std::string address, Limits limits) : address(std::move(address)), limits(limits) { }

    Secret read(const Item &item, std::stop_token stop) override;
    Outcome update(const Item &item, const std::string &bytes, std::stop_token stop) override;
    Outcome add(const Item &item, const std::string &bytes, std::stop_token stop) override;
    Outcome remove(const Item &item, std::stop_token stop) override;

private:
    class Session;

    const std::string address;
    const Limits limits;
};

} // namespace korvane
