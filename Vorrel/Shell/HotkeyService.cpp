#include "Vorrel/Shell/HotkeyService.h"

#include "Vorrel/Shell/AppLog.h"

namespace korvane {

using Reason = HotkeyRegistrationError::Reason;

void HotkeyBinding::replace(const HotkeyConfiguration &with)
{
    if (!with.valid())
        throw HotkeyRegistrationError(Reason::invalid);
    if (previous && !previous->lease)
        previous->lease = registrar.reserve(previous->configuration);
    if (previous && previous->held(with))
        current = std::exchange(previous, std::nullopt);
    if (!current || !current->held(with)) {
        HotkeyLease taken = registrar.reserve(with);
        if (active() && !previous && !registrar.decidesAtOnce())
            previous = std::move(current);
        current = {with, std::move(taken)};
    }
    current->configuration = with;
}

void HotkeyBinding::release()
{
    for (std::optional<Shortcut> *one : {&current, &previous})
        if (*one)
            (*one)->lease.reset();
}

void HotkeyBinding::granted(const HotkeyConfiguration &which)
{
    if (current && current->held(which))
        previous.reset();
}

bool HotkeyBinding::lost(const HotkeyConfiguration &which)
{
    if (previous && previous->held(which)) {
        previous.reset();
        return false;
    }
    if (!current || !current->held(which))
        return false;
    if (previous)
        current = std::exchange(previous, std::nullopt);
    else
        current->lease.reset();
    return true;
}

void HotkeyBinding::stop()
{
    current.reset();
    previous.reset();
}

std::optional<HotkeyConfiguration> HotkeyBinding::configuration() const
{
    return current ? std::optional(current->configuration) : std::nullopt;
}

HotkeyService::HotkeyService(HotkeyRegistering &registrar, std::function<void()> onTrigger, Lost lost) :
    registrar(registrar), binding(registrar), onTrigger(std::move(onTrigger))
{
    installed = registrar.install({
        .pressed = [this] { trigger(); },
        .granted = [this](const HotkeyConfiguration &which) { binding.granted(which); },
        .lost =
            [this, lost = std::move(lost)](const HotkeyConfiguration &which, const HotkeyRegistrationError &why) {
                if (binding.lost(which))
                    lost(which, why);
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
