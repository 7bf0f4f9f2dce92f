#pragma once

#include <QColor>
#include <QFont>
#include <QObject>
#include <QPalette>
#include <QStringList>

class QDBusVariant;

namespace korvane {

/// The colours of one appearance. Every pair of text and ground keeps a contrast of at least 4.5 to 1.
struct Theme {
    bool dark;
    QColor ground, border, separator;
    QColor raised; ///< The ground of menus and alerts.
    QColor text, secondary, faint; ///< `faint` is for marks that repeat what a text says.
    QColor accent, selection, hover;
    QColor keyGround, keyBorder;
    QColor tile; ///< Behind a symbol.
    QColor warning, warningGround;
    int shadow; ///< Alpha of the window's shadow next to its edge, 0 to 255.

    static const Theme &day();
    static const Theme &night();
};

/// The one type scale, in units of the layout: the palette is 700 of them wide.
enum class TypeSize { Field = 21, Heading = 16, Title = 14, Body = 13, Small = 12, Caption = 11 };

/// How the user wants programs to look: light or dark, fonts, icons, motion. Follows the desktop while it
/// runs; every question to the desktop is asynchronous. Main thread only.
class Appearance : public QObject {
    Q_OBJECT

public:
    /// `KORVANE_APPEARANCE` ("light" or "dark") and `KORVANE_REDUCED_MOTION` in the environment overrule the desktop.
    explicit Appearance(QObject *parent = nullptr);

    const Theme &theme() const;
    QFont font(TypeSize size, QFont::Weight weight = QFont::Normal) const;
    /// `base` with the colours of text that is typed on a ground of the program's own.
    QPalette fieldColours(QPalette base) const;
    /// Icon themes to search, the user's own first.
    QStringList iconThemes() const;
    bool reducedMotion() const;

Q_SIGNALS:
    void changed();

private Q_SLOTS:
    void settingChanged(const QString &group, const QString &key, const QDBusVariant &value);

private:
    void ask(const QString &group, const QString &key);
    void apply(const QString &group, const QString &key, const QVariant &value);
    bool dark() const;
    void paintApplication();

    QString forced;
    int colorScheme = 0; ///< As the desktop's settings say it: 1 dark, 2 light, 0 no preference.
    bool darkStyle = false;
    bool animations = true;
    QString iconTheme, fontFamily;
};

} // namespace korvane
