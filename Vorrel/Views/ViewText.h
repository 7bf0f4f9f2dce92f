#pragma once

#include "Vorrel/Platform/HotkeyRegistering.h"

#include <QString>
#include <QStringList>

#include <string_view>

/// Text at the edge between the model (UTF-8) and the toolkit, and the names of keys as this desktop knows them.
namespace korvane {

inline QString fromUtf8(std::string_view text) { return QString::fromUtf8(text.data(), qsizetype(text.size())); }

/// The user's words for `english`, which the views get from the model at run time.
QString shownText(std::string_view english);

/// A text that somebody else has written, in its own words: nothing in it can move or turn what stands around it.
QString foreignText(std::string_view text);
/// The same on one line.
QString foreignLine(std::string_view text);

/// What a run of the assistant does now, in the user's language; the name of a tool stays as it is.
QString runStatus(std::string_view english);

/// The keys of a hint as they are printed here: "⌘ ⇧ C" is Ctrl, Shift, C and "⌘1" is Ctrl, 1.
QStringList keyNames(std::string_view hint);

/// The keys of a global shortcut as they are printed here: Super, Alt, Space.
QStringList keysOf(const HotkeyConfiguration &shortcut);
/// The same as one word: "Alt+Space".
QString nameOf(const HotkeyConfiguration &shortcut);

/// One part of a line of hints such as "↵ Open · esc Back".
struct KeyHint {
    QStringList keys;
    QString text;
    bool operator==(const KeyHint &) const = default;
};
QList<KeyHint> keyHints(const QString &line);

} // namespace korvane
