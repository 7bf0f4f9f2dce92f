#pragma once

#include "Support/Observed.h"
#include "Support/Task.h"

#include <QCache>
#include <QColor>
#include <QPixmap>
#include <QSet>
#include <QStringList>

#include <deque>
#include <string>
#include <string_view>

namespace korvane {

class IconFinder;

/// Pictures at the size and resolution at which they are shown, in one cache of bounded bytes for all windows.
///
/// Main thread only and never blocks it: symbols are drawn on the spot from the program's own resources,
/// icons of files are read on the pool, one at a time, the latest wish first. Held by a shared pointer, so that
/// a reading in progress may outlive the views.
class IconStore : public std::enable_shared_from_this<IconStore> {
public:
    static constexpr qsizetype defaultLimit = 4 * 1024 * 1024;

    /// Keeps up to `limit` bytes of pictures; what was not shown for the longest time goes first.
    IconStore(Executor mainThread, Executor pool, qsizetype limit = defaultLimit);
    ~IconStore();

    /// A symbol in one colour; an unknown name gives a neutral one.
    QPixmap symbol(std::string_view name, int size, qreal ratio, const QColor &color);

    enum class Look { Ready, Loading, Nothing };
    /// The icon of a file, if it is there. `Loading` says that it will be among the `arrivals`.
    Look file(const std::string &path, int size, qreal ratio, QPixmap &icon);

    /// The same drawn anew each time, for what is seldom shown.
    static QPixmap drawSymbol(std::string_view name, int size, qreal ratio, const QColor &color);
    /// The program's own mark.
    static QPixmap mark(int size, qreal ratio);

    /// Themes to search, the first one first. Forgets icons that came from others.
    void setThemes(const QStringList &names);
    bool loading() const { return reading; }
    qsizetype bytes() const { return cache.totalCost(); } ///< Of the pictures that are kept.

    Observed<int> arrivals{0}; ///< Counts the icons that were asked for and can be shown now.

private:
    struct Wish {
        QString key;
        std::string path;
        int size;
        qreal ratio;
    };
    void load();
    static Task<void> loadAll(std::weak_ptr<IconStore> store, std::shared_ptr<Actor> reader, std::shared_ptr<IconFinder> finder);
    std::optional<Wish> nextWish();
    void keep(const QString &key, const QPixmap &picture);

    Executor mainThread;
    std::shared_ptr<Actor> reader;
    std::shared_ptr<IconFinder> finder; // the reader's own
    QStringList themes;
    QCache<QString, QPixmap> cache; // cost in bytes; a null pixmap stands for "there is none"
    std::deque<Wish> wishes;
    QSet<QString> wished; // waiting or being read
    bool reading = false;
    TaskHandle loader;
};

} // namespace korvane
