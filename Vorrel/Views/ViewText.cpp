#include "Vorrel/Views/ViewText.h"

#include "Support/Text.h"
#include "Vorrel/Shell/L10n.h"

namespace korvane {

QString shownText(std::string_view english) { return fromUtf8(L10n::shown(english)); }

QString foreignText(std::string_view text) { return fromUtf8(withoutControls(text)); }

QString foreignLine(std::string_view text)
{
    QString line = foreignText(text);
    return line.replace(u'\n', u' ').replace(u'\t', u' ');
}

QString runStatus(std::string_view english)
{
    constexpr std::string_view before = "Running ", behind = "…";
    if (!english.starts_with(before) || !english.ends_with(behind))
        return shownText(english);
    english.remove_prefix(before.size());
    english.remove_suffix(behind.size());
    return fromUtf8(L10n::shown("Running %@…")).replace(QStringLiteral("%@"), foreignText(english));
}

static QString nameOfKey(QChar symbol)
{
    switch (symbol.unicode()) {
    case u'⌘': return QStringLiteral("Ctrl");
    case u'⌥': return QStringLiteral("Alt");
    case u'⇧': return QStringLiteral("Shift");
    case u'⌃': return QStringLiteral("Super");
    case u'⇥': return QStringLiteral("Tab");
    default: return {};
    }
}

QStringList keyNames(std::string_view hint)
{
    QStringList names;
    QString plain; // a key that is not a modifier may have several letters, such as "esc"
    for (const QChar c : fromUtf8(hint)) {
        const QString name = nameOfKey(c);
        if (name.isEmpty() && !c.isSpace()) {
            plain += c;
            continue;
        }
        if (!plain.isEmpty())
            names += std::exchange(plain, {});
        if (!name.isEmpty())
            names += name;
    }
    if (!plain.isEmpty())
        names += plain;
    return names;
}

QStringList keysOf(const HotkeyConfiguration &shortcut)
{
    using Configuration = HotkeyConfiguration;
    static constexpr std::pair<std::uint32_t, const char *> names[] = {{Configuration::control, "Ctrl"},
        {Configuration::option, "Alt"}, {Configuration::shift, "Shift"}, {Configuration::command, "Super"}};
    QStringList keys;
    for (const auto &[bit, name] : names)
        if (shortcut.modifiers & bit)
            keys += QLatin1String(name);
    // What is printed "Delete" here is another key.
    constexpr std::uint32_t backspace = 51;
    keys += shortcut.keyCode == backspace ? QStringLiteral("Backspace") : fromUtf8(shortcut.keyName());
    return keys;
}

QString nameOf(const HotkeyConfiguration &shortcut) { return keysOf(shortcut).join(u'+'); }

QList<KeyHint> keyHints(const QString &line)
{
    QList<KeyHint> hints;
    for (const QString &part : line.split(QStringLiteral(" · "), Qt::SkipEmptyParts)) {
        const qsizetype blank = part.indexOf(u' ');
        const QString key = blank < 0 ? part : part.left(blank);
        hints += {keyNames(key.toStdString()), blank < 0 ? QString() : part.mid(blank + 1)};
    }
    return hints;
}

} // namespace korvane
