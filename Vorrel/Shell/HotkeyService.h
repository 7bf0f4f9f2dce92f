#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace korvane {

/// A global shortcut: a virtual key code and modifier bits (Command 256, Shift 512, Option 2048, Control 4096).
struct HotkeyConfiguration {
    std::uint32_t keyCode = 49;
    std::uint32_t modifiers = 2048;
    std::optional<std::string> keyLabel = {}; ///< The key's printed name as recorded.
    bool operator==(const HotkeyConfiguration &) const = default;
};

/// The one global shortcut of the program. No system key is bound by this build: registering keeps the
/// configuration so that what shows it is right. Main thread only.
class HotkeyService {
public:
    explicit HotkeyService(std::function<void()> onTrigger) : onTrigger(std::move(onTrigger)) { }

    /// Binds `configuration` in place of the present one; throws and keeps the present one when refused.
    void registerHotkey(HotkeyConfiguration configuration) { _configuration = std::move(configuration); }
    /// Lets the key go while a new one is being recorded, and takes it again.
    void suspend(bool recording) { suspended = recording; }
    void stop() { _configuration.reset(); }
    const std::optional<HotkeyConfiguration> &configuration() const { return _configuration; }

private:
    std::function<void()> onTrigger;
    std::optional<HotkeyConfiguration> _configuration;
    bool suspended = false;
};

} // namespace korvane
