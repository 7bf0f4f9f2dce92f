#pragma once

#include "Vorrel/Platform/HotkeyRegistering.h"

namespace korvane {

/// The one shortcut that is registered, if any. A new one is taken before the old one is given up, so that a refusal leaves
/// the user with a working key. Where the system decides later, both work until it has. Main thread only.
class HotkeyBinding {
public:
    explicit HotkeyBinding(HotkeyRegistering &registrar) : registrar(registrar) { }

    /// Registers `with` in place of the present one. The same keys under another label are only noted, without asking the
    /// system. Throws `HotkeyRegistrationError` and then changes nothing.
    void replace(const HotkeyConfiguration &with);
    /// Gives the key back and keeps its configuration, to be taken again by `replace`.
    void release();
    /// The system has granted `which`: what it replaces is given back.
    void granted(const HotkeyConfiguration &which);
    /// The system has refused `which` or taken it back; what it was to replace is the registered one again. False when the
    /// loss changes nothing for the user, since another shortcut is already to come in its place.
    bool lost(const HotkeyConfiguration &which);
    /// Gives the key back and forgets it.
    void stop();

    bool active() const { return current && current->lease; }
    /// What is registered or, while suspended, is to be registered again.
    std::optional<HotkeyConfiguration> configuration() const;

private:
    struct Shortcut {
        HotkeyConfiguration configuration;
        std::optional<HotkeyLease> lease; ///< None while suspended or lost.

        bool held(const HotkeyConfiguration &keys) const { return lease && configuration.sameKeys(keys); }
    };

    HotkeyRegistering &registrar;
    std::optional<Shortcut> current;
    std::optional<Shortcut> previous; ///< Until the system has decided on the current one.
};

/// The global shortcut and what it triggers. Main thread only.
class HotkeyService {
public:
    /// Told of the shortcut that the system has refused or taken back.
    using Lost = std::function<void(const HotkeyConfiguration &, const HotkeyRegistrationError &)>;

    /// Listens from now on. When `lost` is told, the shortcut is not registered any more, and `configuration` is `active` if
    /// the one before it still is.
    HotkeyService(
        HotkeyRegistering &registrar, std::function<void()> onTrigger,
        Lost lost = [](const HotkeyConfiguration &, const HotkeyRegistrationError &) {});
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
    std::optional<HotkeyConfiguration> configuration() const { return binding.configuration(); }

private:
    void trigger();

    HotkeyRegistering &registrar;
    HotkeyBinding binding;
    std::function<void()> onTrigger;
    bool installed = false;
};

} // namespace korvane
