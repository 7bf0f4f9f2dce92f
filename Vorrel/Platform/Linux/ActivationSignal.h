#pragma once

#include "Vorrel/Platform/Activation.h"

#include <string>

namespace korvane {

/// The activation signal on the session bus, which the first instance listens to.
namespace ActivationSignal {
inline constexpr const char *path = "/dev/korvane";
inline constexpr const char *interface = "dev.korvane";
inline constexpr const char *member = "activate";
} // namespace ActivationSignal

/// Sends the activation signal. Blocks for at most two seconds, with nobody to carry it not at all.
class LinuxActivationSender final : public ActivationSender {
public:
    /// `sessionBus` is the bus's address; empty where the session has none.
    explicit LinuxActivationSender(std::string sessionBus) : sessionBus(std::move(sessionBus)) { }
    void post() override;

private:
    std::string sessionBus;
};

} // namespace korvane
