#pragma once

#include <QHash>
#include <QImage>
#include <QStringList>

#include <memory>
#include <string>
#include <vector>

namespace korvane {

/// Finds and draws the icons of applications and files: reads desktop entries, guesses types by extension,
/// searches icon themes. Blocking; used by one thread at a time, any thread.
class IconFinder {
public:
    IconFinder();
    ~IconFinder();

    /// Themes to search in this order; each brings the ones that it inherits.
    void setThemes(const QStringList &names);

    /// The icon of the file at `path` (of the application, if it is a desktop entry), `size` units large with
    /// `ratio` pixels a unit. A null image when nothing suits.
    QImage icon(const std::string &path, int size, qreal ratio);

    /// The first of these that a theme has, by its name. A null image when none does.
    QImage firstOf(const QStringList &names, int size, qreal ratio);

    /// The value of `Icon` in the main group of a desktop entry's text; empty when there is none.
    static QByteArray iconNameIn(const QByteArray &entry);

private:
    struct Folder;
    struct IconTheme;

    QImage named(const QString &name, int size, qreal ratio);
    QString file(const QString &name, int size, int scale);
    const IconTheme &theme(const QString &name);
    static QImage draw(const QString &file, int size, qreal ratio);
    static QStringList typeNames(const QString &path);

    QStringList bases; // folders that hold themes
    QStringList asked; // themes as the caller named them
    QStringList order; // themes, each once, inherited ones after their heirs
    QHash<QString, std::shared_ptr<IconTheme>> themes;
};

} // namespace korvane
