#pragma once

#include <string>

namespace korvane {

/// A key press as a window reports it, in the model's own terms.
struct KeyPress {
    enum class Key { Character, Return, Escape, Other };
    Key key = Key::Other;
    std::string character = {}; ///< What the key is called, letters of either case; for `Character`.
    bool command = false; ///< The platform's command key: Ctrl on Linux.
    bool shift = false;
};

} // namespace korvane
