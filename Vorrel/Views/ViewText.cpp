#include "Vorrel/Views/ViewText.h"

#include "Vorrel/Shell/L10n.h"

namespace korvane {

QString shownText(std::string_view english) { return fromUtf8(L10n::shown(english)); }

static QString nameOf(QChar symbol)
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
        const QString name = nameOf(c);
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
