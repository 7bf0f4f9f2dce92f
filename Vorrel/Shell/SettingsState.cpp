#include "Vorrel/Shell/SettingsState.h"

#include "CommandCore/Commands.h"

namespace korvane {

void SettingsState::reportHotkeyFailure(
    std::exception_ptr error, const HotkeyConfiguration &attempted, std::optional<HotkeyConfiguration> active)
{
    hotkeyAttempt = attempted;
    activeHotkey = std::move(active);
    hotkeyIssue = AppError::friendly(error);
    selectedTab = Tab::general;
}

} // namespace korvane
