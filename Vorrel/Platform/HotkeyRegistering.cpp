#include "Vorrel/Platform/HotkeyRegistering.h"

#include <algorithm>
#include <array>
#include <unicode/uchar.h>
#include <unicode/utf8.h>
#include <utility>

namespace korvane {

namespace {

constexpr std::uint32_t allModifiers =
    HotkeyConfiguration::command | HotkeyConfiguration::shift | HotkeyConfiguration::option | HotkeyConfiguration::control;
constexpr std::uint32_t keyCodes = 128;

/// Keys whose name does not depend on the layout.
constexpr std::pair<std::uint32_t, std::string_view> fixedNames[] = {{49, "Space"}, {36, "Return"}, {48, "Tab"}, {51, "Delete"},
    {123, "←"}, {124, "→"}, {125, "↓"}, {126, "↑"}, {37, "L"}, {40, "K"}};

/// A label that shows as one visible word.
bool isPrintable(const std::string &label)
{
    const auto size = static_cast<std::int32_t>(label.size());
    for (std::int32_t at = 0; at < size;) {
        UChar32 scalar;
        U8_NEXT(label.data(), at, size, scalar);
        if (scalar < 0 || u_isUWhiteSpace(scalar))
            return false;
        if (const auto type = u_charType(scalar); type == U_CONTROL_CHAR || type == U_FORMAT_CHAR)
            return false;
    }
    return size > 0;
}

AppError errorFor(HotkeyRegistrationError::Reason reason)
{
    switch (reason) {
    case HotkeyRegistrationError::Reason::rejected:
        return AppError(AppError::Kind::configuration,
            "This shortcut could not be registered. It may be used by macOS or another app. Choose a different shortcut.");
    case HotkeyRegistrationError::Reason::invalid:
        return AppError(AppError::Kind::configuration, "Choose a shortcut with Command, Option or Control.");
    case HotkeyRegistrationError::Reason::unavailable: break;
    }
    return AppError(
        AppError::Kind::configuration, "Global shortcuts are unavailable. Open Korvane from the menu bar and try again.");
}

} // namespace

std::uint32_t HotkeyConfiguration::carbonModifiers(std::uint32_t eventFlags)
{
    std::uint32_t bits = 0;
    for (const auto &modifier : modifierTable)
        if (eventFlags & modifier.eventFlag)
            bits |= modifier.bit;
    return bits;
}

bool HotkeyConfiguration::valid() const
{
    return keyCode < keyCodes && keyCode != escapeKey && (modifiers & (command | option | control)) != 0
        && (modifiers & ~allModifiers) == 0;
}

std::string HotkeyConfiguration::keyName() const
{
    const auto fixed = std::ranges::find(fixedNames, keyCode, [](const auto &entry) { return entry.first; });
    if (fixed != std::end(fixedNames))
        return std::string(fixed->second);
    if (keyLabel && isPrintable(*keyLabel))
        return *keyLabel;
    return "Key " + std::to_string(keyCode);
}

std::string HotkeyConfiguration::displayName() const
{
    std::string name;
    for (const auto &modifier : modifierTable)
        if (modifiers & modifier.bit)
            name += modifier.symbol;
    return name + keyName();
}

HotkeyRegistrationError::HotkeyRegistrationError(Reason reason, std::int32_t status) :
    AppError(errorFor(reason)), reason(reason), status(status)
{
}

} // namespace korvane
