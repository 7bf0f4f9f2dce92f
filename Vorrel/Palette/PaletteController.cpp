#include "Vorrel/Palette/PaletteController.h"

#include "Vorrel/Shell/AppLog.h"

namespace korvane {

using namespace std::chrono_literals;

namespace {

constexpr Milliseconds showTime = 160ms;
constexpr Milliseconds hideTime = 100ms;

} // namespace

PaletteController::PaletteController(AppServices &services, const MakeWindow &makeWindow) :
    services(services), actionCoordinator(services.platform.dialogs),
    _state(std::make_shared<PaletteState>(services, actionCoordinator)), window(makeWindow(*this))
{
    _state->hide = [this] { hide(); };
    _state->focusInput = [this] { spawnDetached(this->services.platform.mainThread, focusSoon(_state, this)); };
    window->onKeyboardLost([this] {
        if (window && window->visible() && mayHide())
            hide();
    });
    startTask = spawn(services.platform.mainThread, _state->start());
}

PaletteController::~PaletteController()
{
    stop();
    _state->hide = [] {};
    _state->focusInput = [] {};
}

Task<void> PaletteController::focusSoon(std::weak_ptr<PaletteState> alive, PaletteController *self)
{
    co_await yieldOnce(); // the views settle after a change of the state
    if (const auto state = alive.lock(); state && self->window && self->window->hasKeyboard())
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

void PaletteController::hide()
{
    if (!_presented || !window)
        return;
    _presented = false;
    const int generation = ++presentationGeneration;
    _state->cancelWork();
    // A palette that was shown again meanwhile stays.
    const auto completed = [this, generation, alive = std::weak_ptr(_state)] {
        if (alive.lock() && window && presentationGeneration == generation && !_presented)
            window->orderOut();
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
    if (window && _presented && mayHide() && !inside && !window->frame().contains(x, y))
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
    if (key.key != KeyPress::Key::Character || key.character.size() != 1)
        return false;
    switch (const char c = key.character[0]; c) {
    case '1':
    case '2':
    case '3':
    case '4': _state->setCategory(allSearchCategories[std::size_t(c - '1')]); return true;
    case 'c':
        if (!key.shift)
            return false; // copies what is selected in the field
        _state->performKey(ActionKey::copyPath);
        return true;
    case 'k': _state->toggleActions(); return true;
    case 'y': _state->togglePreview(); return true;
    default: return false;
    }
}

} // namespace korvane
