#pragma once

#include "Vorrel/Platform/Pasteboard.h"

#include <string>

namespace korvane {

/// The clipboard of an X display, for programs without a window that end before anyone pastes. A text on an X
/// clipboard lives in its owner, so each text is given to a small process of its own, which outlives this one
/// and ends when somebody else takes the clipboard or the display goes.
class XcbPasteboard final : public Pasteboard {
public:
    /// `display` is as in $DISPLAY; empty where there is none. `pool` waits for the process.
    XcbPasteboard(Executor pool, std::string display) : actor(std::move(pool)), display(std::move(display)) { }

    static constexpr std::size_t textLimit = 64U << 20; ///< Bytes.

    /// Ends within two seconds, whatever the display does. False also for a text over the limit.
    Task<bool> setText(std::string text) override;

private:
    Actor actor;
    const std::string display;
};

} // namespace korvane
