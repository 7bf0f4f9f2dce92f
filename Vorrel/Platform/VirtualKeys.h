#pragma once

#include <cstdint>
#include <span>

namespace korvane {

/// One key of a keyboard by its three numbers.
struct VirtualKey {
    std::uint32_t code; ///< As a `HotkeyConfiguration` keeps it: the virtual key codes of Apple's `Events.h`.
    std::uint32_t keysym; ///< The X keysym of its name (`keysymdef.h`), lower case.
    std::uint32_t position; ///< Its place on a US keyboard: the Linux input event code; an X key code is 8 more.
};

/// All keys that can be part of a global shortcut, and Escape.
std::span<const VirtualKey> virtualKeys();

/// The key of this name. Letters may be of either case.
const VirtualKey *virtualKeyNamed(std::uint32_t keysym);
/// The key at this place, for layouts whose letters have no name here.
const VirtualKey *virtualKeyAt(std::uint32_t position);
const VirtualKey *virtualKeyOfCode(std::uint32_t code);

} // namespace korvane
