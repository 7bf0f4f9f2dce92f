#pragma once

#include "Support/Clock.h"
#include "Vorrel/Platform/HotkeyRegistering.h"

#include <memory>

namespace korvane {

/// Global shortcuts of an X display, by passive grabs on a connection of its own. Whatever locks and layouts are on, the key
/// works; it follows changes of the keyboard.
///
/// What is typed after a press is not lost to the window that had the keyboard: the server holds it back while the press is
/// answered, and on request until the answering window has the keyboard. Main thread only; each request is one short round
/// trip to the server.
class X11Hotkeys final : public HotkeyRegistering {
public:
    /// How long keys are held back at most.
    static constexpr Milliseconds patience{300};

    /// `display` is as in $DISPLAY. `clock` outlives this object.
    X11Hotkeys(Executor mainThread, Clock &clock, std::string display);
    ~X11Hotkeys() override;

    /// False without a display, and on one without the keyboard extension.
    bool install(Handlers handlers) override;
    void remove() override;
    /// Errors carry the X error code, such as 10 for a combination that another program has.
    HotkeyLease reserve(const HotkeyConfiguration &configuration) override;

    /// For the answer to a press, given while `pressed` is told: the server's time of the press, and what is typed from then
    /// on waits for `letKeysThrough`, `patience` at most. 0 at other times, when nothing waits.
    std::uint32_t claimKeys();
    /// The answering window has the keyboard, or will not get it: what waits goes to whoever has the keyboard now. Harmless
    /// at any time.
    void letKeysThrough();

private:
    class Display;

    static Task<void> read(std::shared_ptr<Display> display);

    const Executor mainThread;
    Clock &clock;
    const std::string name;
    std::shared_ptr<Display> display;
    TaskHandle reading;
};

} // namespace korvane
