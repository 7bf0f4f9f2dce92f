#pragma once

#include "Vorrel/Platform/HotkeyRegistering.h"
#include "Vorrel/Platform/VirtualKeys.h"

#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <string_view>
#include <vector>

typedef struct xcb_connection_t xcb_connection_t;

namespace korvane {

struct FreeXcbReply {
    void operator()(void *reply) const { std::free(reply); }
};
/// An answer, an event or an error of an X server.
template <class T> using XcbReply = std::unique_ptr<T, FreeXcbReply>;

/// What the keys of an X display mean at one moment. A value.
class X11Keymap {
public:
    /// Asks the server, which must have the XKB extension. Nothing when it does not answer.
    static std::optional<X11Keymap> read(xcb_connection_t *connection);

    /// The keys that bear this one's name in any of the keyboard's layouts; where none does, the key at its place. A `label` that
    /// is one character and no name of another key goes before the name: what a German keyboard has at the place of the minus
    /// sign is labelled "ß", and has its minus sign elsewhere.
    std::vector<std::uint8_t> keysFor(const VirtualKey &key, std::string_view label) const;
    /// Whether the key of this code is Shift, Alt or the like.
    bool isModifier(std::uint8_t code) const;
    /// X modifiers for those of a configuration, wherever this keyboard has Alt and Super.
    std::uint16_t modifiersFor(std::uint32_t carbonModifiers) const;
    /// All states of the locks (Caps, Num and Scroll) that must make no difference beside `modifiers`; the first is none.
    std::vector<std::uint16_t> lockVariants(std::uint16_t modifiers) const;

private:
    /// The keys that bear the name in any layout; none for 0.
    std::vector<std::uint8_t> keysNamed(std::uint32_t keysym) const;

    struct Key {
        std::vector<std::uint32_t> plain; ///< Keysyms without Shift, one a layout.
        std::vector<std::uint32_t> all;
        bool modifier = false;
    };
    static std::map<std::uint8_t, Key> readKeys(xcb_connection_t *connection);
    void readModifiers(xcb_connection_t *connection);
    std::optional<std::uint16_t> modifierWith(std::initializer_list<std::uint32_t> keysyms) const;

    std::map<std::uint8_t, Key> keys; // by key code
    std::map<std::uint32_t, std::uint16_t> modifiers; // by keysym
};

} // namespace korvane
