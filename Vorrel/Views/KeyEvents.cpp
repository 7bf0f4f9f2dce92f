#include "Vorrel/Views/KeyEvents.h"

#include "Vorrel/Platform/VirtualKeys.h"
#include "Vorrel/Views/X11Window.h"

#include <QCoreApplication>
#include <QKeyEvent>
#include <QKeySequence>

namespace korvane {

static constexpr std::uint32_t firstScanCode = 8; // of an X server, for position 0

static std::uint32_t eventFlags(Qt::KeyboardModifiers modifiers)
{
    static constexpr std::pair<Qt::KeyboardModifier, std::uint32_t> flags[] = {
        {Qt::ControlModifier, 0x40000}, {Qt::AltModifier, 0x80000}, {Qt::ShiftModifier, 0x20000}, {Qt::MetaModifier, 0x100000}};
    std::uint32_t all = 0;
    for (const auto &[modifier, flag] : flags)
        if (modifiers & modifier)
            all |= flag;
    return all;
}

/// What the key says alone, where the event tells what Shift makes of it.
static std::optional<std::uint32_t> keysymWithoutShift(const QKeyEvent &event)
{
    return event.modifiers() & Qt::ShiftModifier ? x11::plainKeysym(event.nativeScanCode(), event.nativeModifiers())
                                                 : std::nullopt;
}

static const VirtualKey *virtualKeyOf(std::uint32_t keysym, std::uint32_t scanCode)
{
    if (const VirtualKey *named = virtualKeyNamed(keysym))
        return named;
    return scanCode > firstScanCode ? virtualKeyAt(scanCode - firstScanCode) : nullptr;
}

/// The character that is printed on the key, or the toolkit's number of a key without one.
static char32_t printedOn(const QKeyEvent &event, const VirtualKey &key, std::optional<std::uint32_t> plain)
{
    constexpr std::uint32_t firstOfOtherAlphabets = 0x100; // keysyms below are their characters
    if (plain && *plain < firstOfOtherAlphabets)
        return *plain;
    const bool shifted = event.modifiers() & Qt::ShiftModifier && event.key() < 0x80;
    return shifted ? key.keysym : char32_t(event.key());
}

static QString labelOf(const QKeyEvent &event, char32_t printed)
{
    if (printed <= 0x20 || printed >= 0x1000000)
        return QKeySequence(event.key()).toString(); // "F5", "Home"
    const char32_t capital = QChar::toUpper(printed);
    return QString::fromUcs4(&capital, 1);
}

std::optional<HotkeyConfiguration> hotkeyOf(const QKeyEvent &event)
{
    const auto plain = keysymWithoutShift(event);
    const VirtualKey *key = virtualKeyOf(plain.value_or(event.nativeVirtualKey()), event.nativeScanCode());
    if (!key)
        return std::nullopt;
    HotkeyConfiguration hotkey{
        .keyCode = key->code, .modifiers = HotkeyConfiguration::carbonModifiers(eventFlags(event.modifiers()))};
    if (const QString label = labelOf(event, printedOn(event, *key, plain)); !label.isEmpty())
        hotkey.keyLabel = label.toStdString();
    return hotkey;
}

/// What a key is called in the shortcuts: by its letter or digit. A key that has neither, as in other scripts, goes by
/// its place on a US keyboard; but a sign that Shift makes of a digit is a sign.
static QChar latinName(const QKeyEvent &event)
{
    const auto isPlain = [](int name) { return name > 0 && name < 0x80 && QChar(char16_t(name)).isLetterOrNumber(); };
    const int key = event.key();
    if (isPlain(key))
        return QChar(char16_t(key)).toLower();
    constexpr int firstNamedKey = 0x1000000; // from here on keys stand for no character
    const VirtualKey *place = virtualKeyAt(event.nativeScanCode() - firstScanCode);
    if (key == 0 || key >= firstNamedKey || !place || !isPlain(int(place->keysym)))
        return {};
    const QChar name(char16_t(place->keysym));
    const bool shiftedSign = name.isDigit() && key < 0x80 && (event.modifiers() & Qt::ShiftModifier);
    return shiftedSign ? QChar() : name;
}

KeyPress keyPressOf(const QKeyEvent &event)
{
    KeyPress press;
    press.command = event.modifiers() & Qt::ControlModifier;
    press.shift = event.modifiers() & Qt::ShiftModifier;
    if (event.key() == Qt::Key_Return || event.key() == Qt::Key_Enter)
        press.key = KeyPress::Key::Return;
    else if (event.key() == Qt::Key_Escape)
        press.key = KeyPress::Key::Escape;
    else if (const QChar name = latinName(event); !name.isNull()) {
        press.key = KeyPress::Key::Character;
        press.character = QString(name).toStdString();
    }
    return press;
}

std::optional<QAbstractSlider::SliderAction> pageActionOf(const QKeyEvent &event)
{
    static constexpr std::tuple<Qt::Key, Qt::KeyboardModifier, QAbstractSlider::SliderAction> actions[] = {
        {Qt::Key_PageUp, Qt::NoModifier, QAbstractSlider::SliderPageStepSub},
        {Qt::Key_PageDown, Qt::NoModifier, QAbstractSlider::SliderPageStepAdd},
        {Qt::Key_Home, Qt::ControlModifier, QAbstractSlider::SliderToMinimum},
        {Qt::Key_End, Qt::ControlModifier, QAbstractSlider::SliderToMaximum},
    };
    for (const auto &[key, modifier, action] : actions)
        if (event.key() == key && (event.modifiers() & ~Qt::KeypadModifier) == modifier)
            return action;
    return std::nullopt;
}

KeyDownFilter::KeyDownFilter(Taken taken) : taken(std::move(taken)) { QCoreApplication::instance()->installEventFilter(this); }

KeyDownFilter::~KeyDownFilter() { QCoreApplication::instance()->removeEventFilter(this); }

/// A held key goes up and down again at one and the same moment. The toolkit notices that only when both have arrived.
bool KeyDownFilter::isRepeat(const QKeyEvent &press) const
{
    return press.isAutoRepeat() || (press.nativeScanCode() == releasedKey && press.timestamp() == releasedAt && releasedAt != 0);
}

bool KeyDownFilter::eventFilter(QObject *target, QEvent *event)
{
    // Windows get a key before their widgets do, and once.
    const bool pressed = event->type() == QEvent::KeyPress;
    if (!(pressed || event->type() == QEvent::KeyRelease) || !target->isWindowType())
        return false;
    const auto &change = static_cast<const QKeyEvent &>(*event);
    if (!pressed) {
        releasedKey = change.nativeScanCode();
        releasedAt = change.timestamp();
        return false;
    }
    const auto key = hotkeyOf(change);
    return key && taken(*key, isRepeat(change));
}

} // namespace korvane
