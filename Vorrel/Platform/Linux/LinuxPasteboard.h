#pragma once

#include "Vorrel/Platform/Linux/XcbPasteboard.h"

#include <string>
#include <vector>

namespace korvane {

/// The clipboard of the desktop at hand, for programs without a window that end before anyone pastes. On Wayland the program
/// "wl-copy" owns the text, since the X server's clipboard reaches other programs there only now and then; where there is
/// none, where it fails, and everywhere else an `XcbPasteboard` does.
class LinuxPasteboard final : public Pasteboard {
public:
    /// `variables` is what programs are started with, as "NAME=value". `pool` waits for them.
    LinuxPasteboard(const Executor &pool, std::vector<std::string> variables);

    /// Ends within four seconds, whatever the desktop does. Takes at most 64 MiB.
    Task<bool> setText(std::string text) override;

private:
    Actor actor;
    const std::vector<std::string> variables;
    XcbPasteboard x11;
};

} // namespace korvane
