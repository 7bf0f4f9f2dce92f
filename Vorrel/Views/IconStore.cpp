#include "Vorrel/Views/IconStore.h"

#include "Vorrel/Views/IconFinder.h"
#include "Vorrel/Views/ViewText.h"

#include <QFile>
#include <QPainter>
#include <QSvgRenderer>

#include <cmath>

/// Resources of a static library are not found unless something refers to them.
static void useIconResources() { Q_INIT_RESOURCE(korvane_icons); }

namespace korvane {

static constexpr qsizetype leastCost = 64; // also of the knowledge that there is no picture
static constexpr std::size_t mostWishes = 64; // older ones have long scrolled away and are asked for again

IconStore::IconStore(Executor mainThread, Executor pool, qsizetype limit) :
    mainThread(std::move(mainThread)), reader(std::make_shared<Actor>(std::move(pool))), finder(std::make_shared<IconFinder>()),
    cache(limit)
{
    useIconResources();
}

IconStore::~IconStore() = default;

static QByteArray svgOf(std::string_view name)
{
    QFile file(QStringLiteral(":/korvane/icons/") + fromUtf8(name) + QStringLiteral(".svg"));
    if (!file.open(QIODevice::ReadOnly)) {
        file.setFileName(QStringLiteral(":/korvane/icons/app.svg"));
        if (!file.open(QIODevice::ReadOnly))
            return {};
    }
    return file.readAll();
}

static QPixmap drawn(const QByteArray &svg, int size, qreal ratio)
{
    const int side = int(std::ceil(size * ratio));
    QImage image(side, side, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QSvgRenderer renderer(svg);
    QPainter painter(&image);
    renderer.render(&painter, QRectF(0, 0, size * ratio, size * ratio));
    painter.end();
    image.setDevicePixelRatio(ratio);
    return QPixmap::fromImage(std::move(image));
}

void IconStore::keep(const QString &key, const QPixmap &picture)
{
    constexpr qsizetype bytesOfPixel = 4;
    cache.insert(key, new QPixmap(picture), std::max(leastCost, bytesOfPixel * picture.width() * picture.height()));
}

QPixmap IconStore::drawSymbol(std::string_view name, int size, qreal ratio, const QColor &color)
{
    useIconResources();
    QColor solid = color;
    solid.setAlpha(255);
    QByteArray svg = svgOf(name);
    svg.replace("currentColor", solid.name().toLatin1());
    return drawn(svg, size, ratio);
}

QPixmap IconStore::symbol(std::string_view name, int size, qreal ratio, const QColor &color)
{
    const QString key = QStringLiteral("symbol:%1:%2:%3:%4").arg(fromUtf8(name)).arg(size).arg(ratio).arg(color.rgba());
    if (const QPixmap *known = cache.object(key))
        return *known;
    const QPixmap picture = drawSymbol(name, size, ratio, color);
    keep(key, picture);
    return picture;
}

QPixmap IconStore::mark(int size, qreal ratio)
{
    useIconResources();
    return drawn(svgOf("korvane"), size, ratio);
}

IconStore::Look IconStore::file(const std::string &path, int size, qreal ratio, QPixmap &icon)
{
    const QString key = QStringLiteral("file:%1:%2:%3").arg(fromUtf8(path)).arg(size).arg(ratio);
    if (const QPixmap *known = cache.object(key)) {
        icon = *known;
        return known->isNull() ? Look::Nothing : Look::Ready;
    }
    if (!wished.contains(key)) {
        wished.insert(key);
        wishes.push_back({key, path, size, ratio});
        if (wishes.size() > mostWishes) {
            wished.remove(wishes.front().key);
            wishes.pop_front();
        }
        load();
    }
    return Look::Loading;
}

void IconStore::setThemes(const QStringList &names)
{
    if (names == themes)
        return;
    themes = names;
    for (const QString &key : cache.keys())
        if (key.startsWith(QLatin1String("file:")))
            cache.remove(key);
}

void IconStore::load()
{
    if (!std::exchange(reading, true))
        loader = spawn(mainThread, loadAll(weak_from_this(), reader, finder));
}

std::optional<IconStore::Wish> IconStore::nextWish()
{
    if (wishes.empty()) {
        reading = false;
        return std::nullopt;
    }
    Wish wish = std::move(wishes.back());
    wishes.pop_back();
    return wish;
}

Task<void> IconStore::loadAll(std::weak_ptr<IconStore> store, std::shared_ptr<Actor> reader, std::shared_ptr<IconFinder> finder)
{
    for (;;) {
        std::optional<Wish> wish;
        QStringList names;
        if (const auto alive = store.lock()) {
            wish = alive->nextWish();
            names = alive->themes;
        }
        if (!wish)
            co_return;
        auto read = [finder, names, path = wish->path, size = wish->size, ratio = wish->ratio](std::stop_token) {
            finder->setThemes(names);
            return finder->icon(path, size, ratio);
        };
        const QImage image = co_await reader->run(std::move(read));
        const auto alive = store.lock();
        if (!alive)
            co_return;
        alive->wished.remove(wish->key);
        if (names == alive->themes) // else it is asked for again, from the new theme
            alive->keep(wish->key, QPixmap::fromImage(image));
        alive->arrivals = alive->arrivals + 1;
    }
}

} // namespace korvane
