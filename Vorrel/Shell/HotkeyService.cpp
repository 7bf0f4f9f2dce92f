#include "Vorrel/Shell/HotkeyService.h"

#include "Vorrel/Shell/AppLog.h"

namespace korvane {

using Reason = HotkeyRegistrationError::Reason;

void HotkeyBinding::replace(const HotkeyConfiguration &with)
{
    if (!with.valid())
        throw HotkeyRegistrationError(Reason::invalid);
    if (!lease || !_configuration || !_configuration->sameKeys(with))
        lease = registrar.reserve(with);
    _configuration = with;
}

void HotkeyBinding::stop()
{
    lease.reset();
    _configuration.reset();
}

HotkeyService::HotkeyService(
    HotkeyRegistering &registrar, std::function<void()> onTrigger, std::function<void(HotkeyRegistrationError)> lost) :
    registrar(registrar),
    binding(registrar), onTrigger(std::move(onTrigger))
{
    installed = registrar.install({
        .pressed = [this] { trigger(); },
        .lost =
            [this, lost = std::move(lost)](const HotkeyRegistrationError &why) {
                binding.release();
                lost(why);
            },
    });
}

void HotkeyService::trigger()
{
    AppLog::app.info("Global shortcut triggered");
    onTrigger();
}

void HotkeyService::registerHotkey(const HotkeyConfiguration &configuration)
{
    if (!installed)
        throw HotkeyRegistrationError(Reason::unavailable);
    binding.replace(configuration);
    AppLog::app.info("Global shortcut registered");
}

void HotkeyService::suspend(bool recording)
{
    if (recording)
        binding.release();
    else if (const auto kept = binding.configuration())
        binding.replace(*kept);
}

void HotkeyService::stop()
{
    binding.stop();
    if (std::exchange(installed, false))
        registrar.remove();
}

bool HotkeyService::handleKeyDown(std::uint32_t keyCode, std::uint32_t carbonModifiers, bool isRepeat)
{
    if (!binding.active() || !binding.configuration()->sameKeys({.keyCode = keyCode, .modifiers = carbonModifiers}))
        return false;
    if (!isRepeat)
        onTrigger();
    return true;
}

} // namespace korvane
