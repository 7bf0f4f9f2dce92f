#pragma once

namespace korvane {

/// Whether the program starts with the user's session. Looks at the disk: not for the main thread. One thread at a time.
class LoginItem {
public:
    enum class Status {
        enabled,
        awaitingApproval, ///< The program has asked for it, and the system's settings have it switched off.
        disabled
    };

    virtual ~LoginItem() = default;
    virtual Status status() const = 0;
    /// Asks to be started with the session. Throws `std::system_error` when that could not be noted.
    virtual void registerProgram() = 0;
    /// Takes that back; nothing happens without it. Throws the same.
    virtual void unregister() = 0;
};

} // namespace korvane
