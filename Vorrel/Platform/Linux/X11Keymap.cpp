#include "Vorrel/Platform/Linux/X11Keymap.h"

#include "Vorrel/Platform/Linux/Xkb.h"

#include <algorithm>
#include <glib.h>
#include <xkbcommon/xkbcommon.h>

namespace korvane {

namespace {

constexpr std::uint32_t numLock = 0xff7f, scrollLock = 0xff14;
constexpr std::uint32_t altLeft = 0xffe9, altRight = 0xffea, superLeft = 0xffeb, superRight = 0xffec;
constexpr std::uint8_t groupCount = 0x0f; // the bits of a key's group information that count its layouts

/// The keysym of a text that is one character, in lower case; else none, 0.
std::uint32_t keysymOf(std::string_view text)
{
    const gunichar character = g_utf8_get_char_validated(text.data(), gssize(text.size()));
    if (text.empty() || character >= 0x110000 || g_unichar_to_utf8(character, nullptr) != int(text.size()))
        return 0;
    return ::xkb_utf32_to_keysym(g_unichar_tolower(character));
}

} // namespace

std::optional<X11Keymap> X11Keymap::read(xcb_connection_t *connection)
{
    X11Keymap map;
    map.keys = readKeys(connection);
    if (map.keys.empty())
        return std::nullopt;
    map.readModifiers(connection);
    return map;
}

std::map<std::uint8_t, X11Keymap::Key> X11Keymap::readKeys(xcb_connection_t *connection)
{
    std::map<std::uint8_t, Key> keys;
    const auto cookie = ::xcb_xkb_get_map(
        connection, XCB_XKB_ID_USE_CORE_KBD, XCB_XKB_MAP_PART_KEY_SYMS, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    const XcbReply<xcb_xkb_get_map_reply_t> reply(::xcb_xkb_get_map_reply(connection, cookie, nullptr));
    if (!reply)
        return keys;
    // Only keysyms were asked for, so they are all that follows.
    const auto *first = static_cast<const xcb_xkb_key_sym_map_t *>(::xcb_xkb_get_map_map(reply.get()));
    std::uint8_t code = reply->firstKeySym;
    for (xcb_xkb_key_sym_map_iterator_t key{const_cast<xcb_xkb_key_sym_map_t *>(first), reply->nKeySyms, 0}; key.rem;
         ::xcb_xkb_key_sym_map_next(&key), ++code) {
        const xcb_keysym_t *symbols = ::xcb_xkb_key_sym_map_syms(key.data);
        Key &known = keys[code];
        known.all.assign(symbols, symbols + key.data->nSyms);
        const std::size_t groups = key.data->groupInfo & groupCount;
        for (std::size_t group = 0; group < groups && group * key.data->width < known.all.size(); ++group)
            known.plain.push_back(known.all[group * key.data->width]);
    }
    return keys;
}

void X11Keymap::readModifiers(xcb_connection_t *connection)
{
    const XcbReply<xcb_get_modifier_mapping_reply_t> reply(
        ::xcb_get_modifier_mapping_reply(connection, ::xcb_get_modifier_mapping(connection), nullptr));
    if (!reply)
        return;
    const xcb_keycode_t *codes = ::xcb_get_modifier_mapping_keycodes(reply.get());
    for (int at = 0; at < ::xcb_get_modifier_mapping_keycodes_length(reply.get()); ++at) {
        const auto key = keys.find(codes[at]);
        if (key == keys.end())
            continue;
        key->second.modifier = true;
        const auto modifier = std::uint16_t(1U << (at / reply->keycodes_per_modifier));
        // Shift, Lock and Control are what they are; the others are whatever this keyboard makes of them.
        for (const std::uint32_t symbol : key->second.all)
            if (modifier >= XCB_MOD_MASK_1)
                modifiers.emplace(symbol, modifier);
    }
}

bool X11Keymap::isModifier(std::uint8_t code) const
{
    const auto key = keys.find(code);
    return key != keys.end() && key->second.modifier;
}

std::vector<std::uint8_t> X11Keymap::keysNamed(std::uint32_t keysym) const
{
    std::vector<std::uint8_t> found;
    for (const auto &[code, key] : keys)
        if (keysym && std::ranges::find(key.plain, keysym) != key.plain.end())
            found.push_back(code);
    return found;
}

std::vector<std::uint8_t> X11Keymap::keysFor(const VirtualKey &wanted, std::string_view label) const
{
    const std::uint32_t labelled = keysymOf(label);
    std::vector<std::uint8_t> found = virtualKeyNamed(labelled) ? std::vector<std::uint8_t>() : keysNamed(labelled);
    if (found.empty())
        found = keysNamed(wanted.keysym);
    constexpr std::uint32_t shift = 8; // between the kernel's key codes and those of X
    const std::uint32_t place = wanted.position + shift;
    if (found.empty() && place <= UINT8_MAX && keys.contains(std::uint8_t(place)))
        found.push_back(std::uint8_t(place));
    return found;
}

std::optional<std::uint16_t> X11Keymap::modifierWith(std::initializer_list<std::uint32_t> keysyms) const
{
    for (const std::uint32_t symbol : keysyms)
        if (const auto found = modifiers.find(symbol); found != modifiers.end())
            return found->second;
    return std::nullopt;
}

std::uint16_t X11Keymap::modifiersFor(std::uint32_t carbonModifiers) const
{
    std::uint16_t mask = 0;
    if (carbonModifiers & HotkeyConfiguration::control)
        mask |= XCB_MOD_MASK_CONTROL;
    if (carbonModifiers & HotkeyConfiguration::shift)
        mask |= XCB_MOD_MASK_SHIFT;
    if (carbonModifiers & HotkeyConfiguration::option)
        mask |= modifierWith({altLeft, altRight}).value_or(XCB_MOD_MASK_1);
    if (carbonModifiers & HotkeyConfiguration::command)
        mask |= modifierWith({superLeft, superRight}).value_or(XCB_MOD_MASK_4);
    return mask;
}

std::vector<std::uint16_t> X11Keymap::lockVariants(std::uint16_t beside) const
{
    std::vector<std::uint16_t> variants{0};
    for (const std::uint16_t lock :
        {std::uint16_t(XCB_MOD_MASK_LOCK), modifierWith({numLock}).value_or(0), modifierWith({scrollLock}).value_or(0)}) {
        if (!lock || (lock & beside) || (variants.back() & lock))
            continue;
        const std::vector<std::uint16_t> without = variants;
        for (const std::uint16_t variant : without)
            variants.push_back(variant | lock);
    }
    return variants;
}

} // namespace korvane
