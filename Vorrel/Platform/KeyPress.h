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

    /// Whether this is the command key with `letter`, a small one of a to z, and without shift.
    bool isCommand(char letter) const { return command && !shift && is(letter); }
    /// Whether the key is that of `letter`, a small one of a to z.
    bool is(char letter) const { return key == Key::Character && character.size() == 1 && (character[0] | 0x20) == letter; }
};

} // namespace korvane
