#include "Vorrel/Platform/Linux/ActivationSignal.h"

#include "Vorrel/Platform/Linux/MessageBus.h"

namespace korvane {

void LinuxActivationSender::post()
{
    constexpr Milliseconds limit{1000}; // for connecting, and again for the round trip
    if (const auto bus = MessageBus::open(sessionBus, limit))
        bus->emit(ActivationSignal::path, ActivationSignal::interface, ActivationSignal::member);
}

} // namespace korvane
