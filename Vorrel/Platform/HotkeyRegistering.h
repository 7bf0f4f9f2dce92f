#pragma once

#include "CommandCore/Commands.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace korvane {

/// One modifier of a global shortcut.
struct HotkeyModifier {
    std::uint32_t eventFlag; ///< As key events carry it.
    std::uint32_t bit; ///< As a configuration keeps it.
    std::string_view symbol;
};

/// A global shortcut: a virtual key code with modifier bits.
struct HotkeyConfiguration {
    static constexpr std::uint32_t command = 256, shift = 512, option = 2048, control = 4096;
    static constexpr std::uint32_t escapeKey = 53, spaceKey = 49;
    static constexpr HotkeyModifier modifierTable[] = {
        {0x40000, control, "⌃"}, {0x80000, option, "⌥"}, {0x20000, shift, "⇧"}, {0x100000, command, "⌘"}};

    std::uint32_t keyCode = spaceKey;
    std::uint32_t modifiers = option;
    std::optional<std::string> keyLabel = {}; ///< The key's printed name as recorded.

    /// The modifier bits of an event's flags; all other flags are dropped.
    static std::uint32_t carbonModifiers(std::uint32_t eventFlags);
    /// Whether it may be registered: a key below 128 other than Escape, with Command, Option or Control, and nothing but the
    /// four modifiers.
    bool valid() const;
    /// Whether both are the same keys to the system, whatever their labels.
    bool sameKeys(const HotkeyConfiguration &other) const { return keyCode == other.keyCode && modifiers == other.modifiers; }
    /// The key alone: "Space", "L", or its label, or its code.
    std::string keyName() const;
    /// Symbols of the modifiers and the key's name, without separators: "⌥Space".
    std::string displayName() const;

    bool operator==(const HotkeyConfiguration &) const = default;
};

/// Why a shortcut is not registered; its sentence is for the user.
class HotkeyRegistrationError : public AppError {
public:
    enum class Reason {
        rejected, ///< The system or another program has it.
        invalid, ///< No shortcut at all.
        unavailable ///< There are no global shortcuts here.
    };
    /// `status` is the system's own number for a rejection.
    explicit HotkeyRegistrationError(Reason reason, std::int32_t status = 0);

    Reason reason;
    std::int32_t status;
};

/// A shortcut that is registered as long as this lives or until `release`. Main thread only.
class HotkeyLease {
public:
    explicit HotkeyLease(std::function<void()> release) : closure(std::move(release)) { }
    HotkeyLease(HotkeyLease &&other) noexcept : closure(std::exchange(other.closure, nullptr)) { }
    HotkeyLease &operator=(HotkeyLease &&other) noexcept
    {
        if (this != &other) {
            release();
            closure = std::exchange(other.closure, nullptr);
        }
        return *this;
    }
    ~HotkeyLease() { release(); }

    /// Gives the shortcut back; a second call does nothing.
    void release()
    {
        if (const auto once = std::exchange(closure, nullptr))
            once();
    }

private:
    std::function<void()> closure;
};

/// Registers keys that work in every program. Main thread only; nothing here ends the program, also not a display that has
/// gone.
class HotkeyRegistering {
public:
    virtual ~HotkeyRegistering() = default;

    struct Handlers {
        /// A registered shortcut was pressed; once for a held key.
        std::function<void()> pressed;
        /// A shortcut that the system had not yet decided on when `reserve` returned is registered.
        std::function<void(const HotkeyConfiguration &)> granted = {};
        /// The system took a registered shortcut back, or refused it after `reserve` had returned.
        std::function<void(const HotkeyConfiguration &, HotkeyRegistrationError)> lost;
    };
    /// Begins to listen. False where programs cannot have global shortcuts; nothing else may be called then.
    virtual bool install(Handlers handlers) = 0;
    virtual void remove() = 0;
    /// Registers a valid shortcut beside those registered before. Throws `HotkeyRegistrationError` "rejected" when the
    /// system refuses, and `unavailable`. A lease may outlive the registrar.
    virtual HotkeyLease reserve(const HotkeyConfiguration &configuration) = 0;
    /// False where the system decides on what `reserve` has returned only later, by `granted` or `lost`, and may let its user
    /// choose another key.
    virtual bool decidesAtOnce() const { return true; }
};

} // namespace korvane
