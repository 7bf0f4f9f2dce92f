#include "Vorrel/Views/KeyEvents.h"

#include "Vorrel/Platform/VirtualKeys.h"

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

static const VirtualKey *virtualKeyOf(const QKeyEvent &event)
{
    if (const VirtualKey *named = virtualKeyNamed(event.nativeVirtualKey()))
        return named;
    const std::uint32_t scanCode = event.nativeScanCode();
    return scanCode > firstScanCode ? virtualKeyAt(scanCode - firstScanCode) : nullptr;
}

/// What is printed on the key. With Shift the event tells another character than the key has alone.
static QString labelOf(const QKeyEvent &event, const VirtualKey &key)
{
    const bool shifted = event.modifiers() & Qt::ShiftModifier && event.key() < 0x80;
    const auto character = char32_t(shifted ? key.keysym : std::uint32_t(event.key()));
    if (character > 0x20 && character < 0x1000000)
        return QString::fromUcs4(&character, 1).toUpper();
    return QKeySequence(event.key()).toString(); // "F5", "Home"
}

std::optional<HotkeyConfiguration> hotkeyOf(const QKeyEvent &event)
{
    const VirtualKey *key = virtualKeyOf(event);
    if (!key)
        return std::nullopt;
    HotkeyConfiguration hotkey{
        .keyCode = key->code, .modifiers = HotkeyConfiguration::carbonModifiers(eventFlags(event.modifiers()))};
    if (const QString label = labelOf(event, *key); !label.isEmpty())
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
