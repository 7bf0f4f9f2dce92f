#pragma once

#include "Support/Task.h"

#include <string>

namespace korvane {

/// The system's clipboard, the writing half. Main thread.
class Pasteboard {
public:
    virtual ~Pasteboard() = default;
    /// Replaces what is on the clipboard by a plain text. False when the system did not take it.
    virtual Task<bool> setText(std::string text) = 0;
};

} // namespace korvane
