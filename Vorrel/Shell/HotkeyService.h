#pragma once

#include "Vorrel/Platform/HotkeyRegistering.h"

namespace korvane {

/// The one shortcut that is registered, if any. A new one is taken before the old one is given up, so that a refusal leaves
/// the user with a working key. Main thread only.
class HotkeyBinding {
public:
    explicit HotkeyBinding(HotkeyRegistering &registrar) : registrar(registrar) { }

    /// Registers `with` in place of the present one. The same keys under another label are only noted, without asking the
    /// system. Throws `HotkeyRegistrationError` and then changes nothing.
    void replace(const HotkeyConfiguration &with);
    /// Gives the key back and keeps its configuration, to be taken again by `replace`.
    void release() { lease.reset(); }
    /// Gives the key back and forgets it.
    void stop();

    bool active() const { return lease.has_value(); }
    /// What is registered or, while suspended, is to be registered again.
    const std::optional<HotkeyConfiguration> &configuration() const { return _configuration; }

private:
    HotkeyRegistering &registrar;
    std::optional<HotkeyLease> lease;
    std::optional<HotkeyConfiguration> _configuration;
};

/// The global shortcut and what it triggers. Main thread only.
class HotkeyService {
public:
    /// Listens from now on. `lost` is told when the system takes the registered key back; it is not registered any more then.
    HotkeyService(
        HotkeyRegistering &registrar, std::function<void()> onTrigger,
        std::function<void(HotkeyRegistrationError)> lost = [](const HotkeyRegistrationError &) {});
    ~HotkeyService() { stop(); }
    HotkeyService(const HotkeyService &) = delete;
    HotkeyService &operator=(const HotkeyService &) = delete;

    /// Binds `configuration` in place of the present one. Throws `HotkeyRegistrationError`, `unavailable` where there are no
    /// global shortcuts, and keeps the present one.
    void registerHotkey(const HotkeyConfiguration &configuration);
    /// While a new shortcut is being recorded the present one must reach the recorder: `true` lets it go, `false` takes it
    /// again, and throws when another program was faster.
    void suspend(bool recording);
    /// Lets the key go for good; further calls do nothing but throw `unavailable`.
    void stop();

    /// A key that came to one of the program's own windows. True when it is the shortcut and goes no further; a repeat of a
    /// held key triggers nothing.
    bool handleKeyDown(std::uint32_t keyCode, std::uint32_t carbonModifiers, bool isRepeat);

    bool active() const { return binding.active(); }
    const std::optional<HotkeyConfiguration> &configuration() const { return binding.configuration(); }

private:
    void trigger();

    HotkeyRegistering &registrar;
    HotkeyBinding binding;
    std::function<void()> onTrigger;
    bool installed = false;
};

} // namespace korvane
