#include "Vorrel/Views/IconFinder.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QImageReader>
#include <QMimeDatabase>
#include <QPainter>
#include <QSvgRenderer>

#include <algorithm>
#include <cmath>

namespace korvane {

static constexpr qint64 largestEntry = 256 * 1024;
static constexpr qint64 largestIcon = 4 * 1024 * 1024;
static constexpr int largestSide = 4096; // pixels

/// One folder of a theme, as its index describes it.
struct IconFinder::Folder {
    enum class Kind { Fixed, Scalable, Threshold };

    /// How far the folder's icons are from what is wanted, in pixels; small ones that must grow count worse.
    int distance(int size, int wantedScale) const
    {
        const int wanted = size * wantedScale;
        const int least = kind == Kind::Fixed ? this->size : kind == Kind::Scalable ? minimum : this->size - threshold;
        const int most = kind == Kind::Fixed ? this->size : kind == Kind::Scalable ? maximum : this->size + threshold;
        if (wanted < least * scale)
            return least * scale - wanted;
        if (wanted > most * scale)
            return 1000 + wanted - most * scale;
        return scale == wantedScale ? 0 : 1;
    }

    QString path; ///< Below the theme's own folder.
    Kind kind = Kind::Threshold;
    int size = 0, scale = 1, minimum = 0, maximum = 0, threshold = 2;
};

struct IconFinder::IconTheme {
    /// The folders, the best for this size first.
    const std::vector<const Folder *> &bestFirst(int size, int scale)
    {
        auto &known = sorted[size * 16 + scale];
        if (known.empty()) {
            for (const Folder &one : folders)
                known.push_back(&one);
            std::stable_sort(known.begin(), known.end(),
                [&](const Folder *a, const Folder *b) { return a->distance(size, scale) < b->distance(size, scale); });
        }
        return known;
    }

    QStringList roots; ///< The theme's folder in each base that has it.
    QStringList inherits;
    std::vector<Folder> folders;
    QHash<int, std::vector<const Folder *>> sorted;
};

IconFinder::IconFinder()
{
    const QString home = QDir::homePath();
    const QString data = qEnvironmentVariable("XDG_DATA_HOME", home + QStringLiteral("/.local/share"));
    const QString system = qEnvironmentVariable("XDG_DATA_DIRS", QStringLiteral("/usr/local/share:/usr/share"));
    bases = {
        home + QStringLiteral("/.icons"), data + QStringLiteral("/icons"), data + QStringLiteral("/flatpak/exports/share/icons")};
    for (const QString &folder : system.split(u':', Qt::SkipEmptyParts))
        bases += folder + QStringLiteral("/icons");
    bases += {QStringLiteral("/var/lib/flatpak/exports/share/icons"), QStringLiteral("/var/lib/snapd/desktop/icons"),
        QStringLiteral("/usr/share/pixmaps")};
    bases.removeDuplicates();
}

IconFinder::~IconFinder() = default;

/// The lines of one group of an index, without comments.
static QHash<QString, QHash<QString, QString>> groupsOf(const QString &file)
{
    QHash<QString, QHash<QString, QString>> groups;
    QFile index(file);
    if (!index.open(QIODevice::ReadOnly))
        return groups;
    QHash<QString, QString> *group = nullptr;
    for (const QByteArray &raw : index.read(largestEntry).split('\n')) {
        const QByteArray line = raw.trimmed();
        if (line.startsWith('[') && line.endsWith(']')) {
            group = &groups[QString::fromUtf8(line.mid(1, line.size() - 2))];
        } else if (const qsizetype equals = line.indexOf('='); group && equals > 0 && !line.startsWith('#')) {
            (*group)[QString::fromUtf8(line.left(equals).trimmed())] = QString::fromUtf8(line.mid(equals + 1).trimmed());
        }
    }
    return groups;
}

const IconFinder::IconTheme &IconFinder::theme(const QString &name)
{
    auto &known = themes[name];
    if (known)
        return *known;
    known = std::make_shared<IconTheme>();
    QString index;
    for (const QString &base : bases) {
        const QString root = base + u'/' + name;
        if (!QFileInfo::exists(root))
            continue;
        known->roots += root;
        if (index.isEmpty() && QFileInfo::exists(root + QStringLiteral("/index.theme")))
            index = root + QStringLiteral("/index.theme");
    }
    const auto groups = index.isEmpty() ? QHash<QString, QHash<QString, QString>>() : groupsOf(index);
    const auto head = groups.value(QStringLiteral("Icon Theme"));
    known->inherits = head.value(QStringLiteral("Inherits")).split(u',', Qt::SkipEmptyParts);
    const QString listed = head.value(QStringLiteral("Directories")) + u',' + head.value(QStringLiteral("ScaledDirectories"));
    for (const QString &path : listed.split(u',', Qt::SkipEmptyParts)) {
        const auto group = groups.value(path);
        Folder folder;
        folder.path = path;
        folder.size = group.value(QStringLiteral("Size")).toInt();
        folder.scale = group.value(QStringLiteral("Scale"), QStringLiteral("1")).toInt();
        folder.minimum = group.value(QStringLiteral("MinSize"), QString::number(folder.size)).toInt();
        folder.maximum = group.value(QStringLiteral("MaxSize"), QString::number(folder.size)).toInt();
        folder.threshold = group.value(QStringLiteral("Threshold"), QStringLiteral("2")).toInt();
        const QString kind = group.value(QStringLiteral("Type"));
        folder.kind = kind == QLatin1String("Fixed") ? Folder::Kind::Fixed
            : kind == QLatin1String("Scalable")      ? Folder::Kind::Scalable
                                                     : Folder::Kind::Threshold;
        if (folder.size > 0 && folder.scale > 0)
            known->folders.push_back(std::move(folder));
    }
    return *known;
}

void IconFinder::setThemes(const QStringList &names)
{
    if (names == asked)
        return;
    asked = names;
    order.clear();
    QStringList waiting = names;
    while (!waiting.isEmpty()) {
        const QString next = waiting.takeFirst().trimmed();
        if (order.contains(next))
            continue;
        order += next;
        QStringList inherited = theme(next).inherits;
        // Every theme ends there anyway; an heir must not bring it before the themes after it.
        inherited.removeAll(QStringLiteral("hicolor"));
        waiting = inherited + waiting;
    }
}

QString IconFinder::file(const QString &name, int size, int scale)
{
    static const QStringList extensions{QStringLiteral(".svg"), QStringLiteral(".png")};
    for (const QString &themeName : order) {
        theme(themeName);
        IconTheme &searched = *themes[themeName];
        for (const Folder *folder : searched.bestFirst(size, scale))
            for (const QString &root : searched.roots)
                for (const QString &extension : extensions)
                    if (const QString path = root + u'/' + folder->path + u'/' + name + extension; QFileInfo::exists(path))
                        return path;
    }
    for (const QString &base : bases)
        for (const QString &extension : extensions)
            if (const QString path = base + u'/' + name + extension; QFileInfo::exists(path))
                return path;
    return {};
}

QImage IconFinder::draw(const QString &file, int size, qreal ratio)
{
    const int side = int(std::ceil(size * ratio));
    if (const QFileInfo info(file); !info.isFile() || info.size() > largestIcon)
        return {};
    QImage image(side, side, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::SmoothPixmapTransform);
    if (file.endsWith(QLatin1String(".svg")) || file.endsWith(QLatin1String(".svgz"))) {
        QSvgRenderer renderer(file);
        if (!renderer.isValid())
            return {};
        renderer.setAspectRatioMode(Qt::KeepAspectRatio);
        renderer.render(&painter, QRectF(0, 0, side, side));
    } else {
        QImageReader reader(file);
        const QSize stored = reader.size();
        if (!stored.isValid() || stored.width() > largestSide || stored.height() > largestSide)
            return {};
        const QImage read = reader.read();
        if (read.isNull())
            return {};
        // Shrinking far in one step leaves jagged edges; Qt's own scaling averages.
        const QImage fitted = read.scaled(side, side, Qt::KeepAspectRatio, Qt::SmoothTransformation);
        painter.drawImage((side - fitted.width()) / 2, (side - fitted.height()) / 2, fitted);
    }
    painter.end();
    image.setDevicePixelRatio(ratio);
    return image;
}

QImage IconFinder::named(const QString &name, int size, qreal ratio)
{
    if (name.isEmpty())
        return {};
    if (name.startsWith(u'/'))
        return draw(name, size, ratio);
    QString plain = name;
    for (const auto *extension : {".png", ".svg", ".xpm"})
        if (plain.endsWith(QLatin1String(extension)))
            plain.chop(4);
    if (plain.contains(u'/')) // a name is no path
        return {};
    const QString found = file(plain, size, std::max(1, int(std::ceil(ratio))));
    return found.isEmpty() ? QImage() : draw(found, size, ratio);
}

QByteArray IconFinder::iconNameIn(const QByteArray &entry)
{
    bool main = false;
    for (const QByteArray &raw : entry.split('\n')) {
        const QByteArray line = raw.trimmed();
        if (line.startsWith('['))
            main = line == "[Desktop Entry]";
        else if (main && line.startsWith("Icon") && line.mid(4).trimmed().startsWith('='))
            return line.mid(line.indexOf('=') + 1).trimmed().replace("\\s", " ");
    }
    return {};
}

QStringList IconFinder::typeNames(const QString &path)
{
    if (QFileInfo(path).isDir())
        return {QStringLiteral("folder"), QStringLiteral("inode-directory")};
    const QMimeType type = QMimeDatabase().mimeTypeForFile(path, QMimeDatabase::MatchExtension);
    QStringList names{type.iconName(), type.genericIconName()};
    for (const QString &parent : type.parentMimeTypes())
        names += QString(parent).replace(u'/', u'-');
    return names + QStringList{QStringLiteral("text-x-generic"), QStringLiteral("unknown")};
}

QImage IconFinder::icon(const std::string &path, int size, qreal ratio)
{
    const QString file = QFile::decodeName(QByteArray::fromStdString(path));
    QStringList names;
    if (file.endsWith(QLatin1String(".desktop"))) {
        if (QFile entry(file); entry.open(QIODevice::ReadOnly))
            names += QString::fromUtf8(iconNameIn(entry.read(largestEntry)));
        names += QStringLiteral("application-x-executable");
    } else {
        names = typeNames(file);
    }
    return firstOf(names, size, ratio);
}

QImage IconFinder::firstOf(const QStringList &names, int size, qreal ratio)
{
    for (const QString &name : names)
        if (QImage found = named(name, size, ratio); !found.isNull())
            return found;
    return {};
}

} // namespace korvane
