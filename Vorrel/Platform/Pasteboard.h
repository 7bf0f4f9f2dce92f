#pragma once

#include "Support/Task.h"

#include <string>

namespace korvane {

/// The system's clipboard, the writing half. Main thread.
class Pasteboard {
public:
    virtual ~Pasteboard() = default;
    /// Replaces what is on the clipboard by a plain text, which is kept byte by byte where it is no UTF-8. False when the system
    /// did not take it.
    virtual Task<bool> setText(std::string text) = 0;

    /// The same; throws `recoverable` "Could not update the clipboard." where the system did not take it.
    Task<void> copy(std::string text);
};

} // namespace korvane
