#include "Vorrel/Palette/PaletteController.h"

#include "Vorrel/Shell/AppLog.h"

#include <algorithm>

namespace korvane {

using namespace std::chrono_literals;

namespace {

constexpr Milliseconds showTime = 160ms;
constexpr Milliseconds hideTime = 100ms;
constexpr double longestClick = 0.3; // seconds from the press to what it does elsewhere

} // namespace

PaletteController::PaletteController(AppServices &services, const MakeWindow &makeWindow) :
    services(services), actionCoordinator(services.platform), _state(std::make_shared<PaletteState>(services, actionCoordinator)),
    window(makeWindow(*this))
{
    _state->hide = [this] { hide(); };
    _state->focusInput = [this] { spawnDetached(this->services.platform.mainThread, focusSoon(itself)); };
    window->onKeyboardLost([this] {
        if (window && window->visible() && mayHide())
            hide();
    });
    startTask = spawn(services.platform.mainThread, _state->start());
}

PaletteController::~PaletteController()
{
    itself.reset();
    stop();
    _state->hide = [] {};
    _state->focusInput = [] {};
}

Task<void> PaletteController::focusSoon(std::weak_ptr<PaletteController> weak)
{
    co_await yieldOnce(); // the views settle after a change of the state
    if (const auto self = weak.lock(); self && self->window && self->window->hasKeyboard())
        self->window->focusInput();
}

void PaletteController::toggle()
{
    if (!window)
        return;
    if (window->hasSheet())
        return window->bringSheetToFront();
    if (_presented)
        return hide();
    _presented = true;
    ++presentationGeneration;
    _state->enter(PaletteState::Mode::commands);
    spawnDetached(services.platform.mainThread, refreshApplications(_state));
    _state->refreshQuicklinks();
    services.shortcuts->refresh(false);
    _state->reloadShortcutCommands();
    placeWindow();
    if (!window->visible())
        window->setOpacity(0);
    window->bringToFront();
    window->focusInput();
    window->animateOpacity(1, window->reducedMotion() ? 0ms : showTime, [] {});
    AppLog::app.info("Palette shown");
}

Task<void> PaletteController::refreshApplications(std::shared_ptr<PaletteState> state) { co_await state->refreshApplications(); }

void PaletteController::placeWindow()
{
    const auto mouse = window->mouse();
    std::optional<PaletteWindow::Screen> chosen;
    for (const auto &screen : window->screens()) {
        if (screen.frame.contains(mouse.x, mouse.y)) {
            chosen = screen;
            break;
        }
    }
    if (!chosen)
        chosen = window->mainScreen();
    if (!chosen)
        return;
    // Centred, and raised by 8 % of the screen's height.
    const ScreenRect &area = chosen->visible;
    const ScreenRect frame = window->frame();
    window->moveTo(area.x + (area.width - frame.width) / 2, area.y + (area.height - frame.height) / 2 - area.height * 8 / 100);
}

void PaletteController::screensChanged()
{
    if (!window || !_presented)
        return;
    const ScreenRect at = window->frame();
    const auto holdsMiddle = [&](const PaletteWindow::Screen &screen) {
        return screen.frame.contains(at.x + at.width / 2, at.y + at.height / 2);
    };
    if (std::ranges::none_of(window->screens(), holdsMiddle))
        placeWindow();
}

void PaletteController::toggleByClick()
{
    const bool sameClick = hiddenByPress && services.platform.clock.uptime() - *hiddenByPress < longestClick;
    if (_presented || !sameClick)
        toggle();
}

void PaletteController::hide()
{
    if (!_presented || !window)
        return;
    _presented = false;
    const int generation = ++presentationGeneration;
    _state->cancelWork();
    // A palette that was shown again meanwhile stays.
    const auto completed = [weak = std::weak_ptr(itself), generation] {
        const auto self = weak.lock();
        if (self && self->window && self->presentationGeneration == generation && !self->_presented)
            self->window->orderOut();
    };
    window->animateOpacity(0, window->reducedMotion() ? 0ms : hideTime, completed);
    AppLog::app.info("Palette hidden");
}

void PaletteController::stop()
{
    if (!window)
        return;
    ++presentationGeneration;
    _presented = false;
    window->orderOut();
    window.reset();
    _state->cancelWork();
    startTask.cancel();
}

bool PaletteController::mayHide() const { return !actionCoordinator.isPresenting() && !window->hasSheet(); }

void PaletteController::mousePressed(int x, int y, bool inside)
{
    if (!window || !_presented || !mayHide() || inside || window->frame().contains(x, y))
        return;
    hiddenByPress = services.platform.clock.uptime();
    hide();
}

bool PaletteController::handleKey(const KeyPress &key)
{
    if (!window || window->hasSheet())
        return false;
    if (key.key == KeyPress::Key::Escape) {
        _state->escape();
        return true;
    }
    if (!key.command)
        return false;
    if (key.key == KeyPress::Key::Return) {
        _state->performKey(ActionKey::reveal);
        return true;
    }
    return key.key == KeyPress::Key::Character && handleCommand(key);
}

bool PaletteController::handleCommand(const KeyPress &key)
{
    if (key.character.size() == 1 && key.character[0] >= '1' && key.character[0] <= '4') {
        _state->setCategory(allSearchCategories[std::size_t(key.character[0] - '1')]);
        return true;
    }
    if (key.shift) {
        if (!key.is('c'))
            return false;
        _state->performKey(ActionKey::copyPath);
        return true;
    }
    if (key.is('k')) {
        _state->toggleActions();
        return true;
    }
    if (key.is('y')) {
        _state->togglePreview();
        return true;
    }
    return false; // the rest is the field's: what is selected in it is copied, cut, pasted
}

} // namespace korvane
