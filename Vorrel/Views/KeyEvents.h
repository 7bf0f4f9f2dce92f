#pragma once

#include "Vorrel/Platform/HotkeyRegistering.h"
#include "Vorrel/Platform/KeyPress.h"

#include <QAbstractSlider>

#include <functional>
#include <optional>

class QKeyEvent;

namespace korvane {

/// The key of an event with its modifiers, whatever they are, and labelled with what is printed on it. Nothing for a
/// modifier alone and for a key that no shortcut can have.
std::optional<HotkeyConfiguration> hotkeyOf(const QKeyEvent &event);

/// The key of an event as the model's shortcuts know it.
KeyPress keyPressOf(const QKeyEvent &event);

/// What a key that turns pages does to what can be scrolled: Page Up, Page Down, and Ctrl with Home and End.
std::optional<QAbstractSlider::SliderAction> pageActionOf(const QKeyEvent &event);

/// Shows every key that goes down in one of the program's windows to the application before any view sees it.
class KeyDownFilter : public QObject {
    Q_OBJECT

public:
    /// `taken` answers whether the key goes no further; a held key comes again and again.
    using Taken = std::function<bool(const HotkeyConfiguration &key, bool isRepeat)>;
    explicit KeyDownFilter(Taken taken);
    ~KeyDownFilter() override;

protected:
    bool eventFilter(QObject *target, QEvent *event) override;

private:
    bool isRepeat(const QKeyEvent &press) const;

    Taken taken;
    std::uint32_t releasedKey = 0; // the last one, by its place on the keyboard
    std::uint64_t releasedAt = 0; // by the server's clock
};

} // namespace korvane
