#include "Vorrel/Views/Appearance.h"

#include <QApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusVariant>
#include <QIcon>
#include <QPalette>
#include <QScreen>
#include <QStyle>

namespace korvane {

static const auto portalService = QStringLiteral("org.freedesktop.portal.Desktop");
static const auto portalPath = QStringLiteral("/org/freedesktop/portal/desktop");
static const auto portalSettings = QStringLiteral("org.freedesktop.portal.Settings");
static const auto appearanceGroup = QStringLiteral("org.freedesktop.appearance");
static const auto interfaceGroup = QStringLiteral("org.gnome.desktop.interface");

const Theme &Theme::day()
{
    static const Theme theme{
        .dark = false,
        .ground = QColor(0xfb, 0xfb, 0xfd),
        .border = QColor(0, 0, 0, 36),
        .separator = QColor(0, 0, 0, 20),
        .raised = QColor(0xfd, 0xfd, 0xfe),
        .text = QColor(0x1b, 0x1c, 0x22),
        .secondary = QColor(0x63, 0x66, 0x70),
        .faint = QColor(0x9a, 0x9d, 0xa8),
        .accent = QColor(0x4a, 0x4f, 0xcf),
        .selection = QColor(0x4a, 0x4f, 0xcf, 30),
        .hover = QColor(0, 0, 0, 10),
        .keyGround = QColor(0, 0, 0, 11),
        .keyBorder = QColor(0, 0, 0, 22),
        .tile = QColor(0x4a, 0x4f, 0xcf, 26),
        .warning = QColor(0xa8, 0x52, 0x00),
        .warningGround = QColor(0xf0, 0x8c, 0x00, 30),
        .shadow = 54,
    };
    return theme;
}

const Theme &Theme::night()
{
    static const Theme theme{
        .dark = true,
        .ground = QColor(0x1e, 0x1f, 0x25),
        .border = QColor(255, 255, 255, 34),
        .separator = QColor(255, 255, 255, 20),
        .raised = QColor(0x27, 0x29, 0x30),
        .text = QColor(0xed, 0xee, 0xf3),
        .secondary = QColor(0xa3, 0xa7, 0xb4),
        .faint = QColor(0x71, 0x75, 0x82),
        .accent = QColor(0xa5, 0xab, 0xff),
        .selection = QColor(0x8d, 0x95, 0xff, 48),
        .hover = QColor(255, 255, 255, 12),
        .keyGround = QColor(255, 255, 255, 16),
        .keyBorder = QColor(255, 255, 255, 26),
        .tile = QColor(0x8d, 0x95, 0xff, 40),
        .warning = QColor(0xff, 0xb8, 0x5c),
        .warningGround = QColor(0xff, 0xb8, 0x5c, 28),
        .shadow = 120,
    };
    return theme;
}

Appearance::Appearance(QObject *parent) :
    QObject(parent), forced(qEnvironmentVariable("KORVANE_APPEARANCE")),
    darkStyle(qEnvironmentVariable("GTK_THEME").endsWith(QLatin1String("dark"), Qt::CaseInsensitive)
        || QGuiApplication::palette().color(QPalette::Window).lightness() < 128),
    animations(qEnvironmentVariableIsEmpty("KORVANE_REDUCED_MOTION"))
{
    QDBusConnection bus = QDBusConnection::sessionBus();
    if (bus.isConnected()) {
        bus.connect(portalService, portalPath, portalSettings, QStringLiteral("SettingChanged"), this,
            SLOT(settingChanged(QString, QString, QDBusVariant)));
        ask(appearanceGroup, QStringLiteral("color-scheme"));
        ask(interfaceGroup, QStringLiteral("icon-theme"));
        ask(interfaceGroup, QStringLiteral("font-name"));
        ask(interfaceGroup, QStringLiteral("enable-animations"));
    }
    paintApplication();
}

bool Appearance::dark() const
{
    if (!forced.isEmpty())
        return forced == QLatin1String("dark");
    return colorScheme == 0 ? darkStyle : colorScheme == 1;
}

const Theme &Appearance::theme() const { return dark() ? Theme::night() : Theme::day(); }

QFont Appearance::font(TypeSize size, QFont::Weight weight) const
{
    static const QStringList unconfigured{QStringLiteral("Sans Serif"), QStringLiteral("Sans"), QStringLiteral("sans-serif")};
    QFont font = QApplication::font();
    if (!fontFamily.isEmpty())
        font.setFamily(fontFamily);
    else if (unconfigured.contains(font.family()))
        font.setFamilies({QStringLiteral("Inter"), font.family()});
    // A user who asked the desktop for larger text gets it here too.
    const QScreen *screen = QGuiApplication::primaryScreen();
    const qreal scale = screen ? qBound(1.0, screen->logicalDotsPerInchY() / 96.0, 1.5) : 1.0;
    font.setPixelSize(qRound(int(size) * scale));
    font.setWeight(weight);
    font.setHintingPreference(QFont::PreferNoHinting);
    return font;
}

QPalette Appearance::fieldColours(QPalette base) const
{
    const Theme &present = theme();
    base.setColor(QPalette::Base, Qt::transparent);
    base.setColor(QPalette::Window, Qt::transparent);
    base.setColor(QPalette::Text, present.text);
    base.setColor(QPalette::PlaceholderText, present.secondary);
    base.setColor(QPalette::Highlight, present.dark ? QColor(0x5a, 0x60, 0xd6) : QColor(0xc9, 0xcc, 0xf7));
    base.setColor(QPalette::HighlightedText, present.text);
    return base;
}

QStringList Appearance::iconThemes() const
{
    static const auto hicolor = QStringLiteral("hicolor");
    QStringList themes;
    for (const QString &own : {iconTheme, QIcon::themeName()})
        if (!own.isEmpty() && own != hicolor && !themes.contains(own))
            themes += own;
    // With a theme of the user's own, an application's own icon comes before one of a theme that merely is installed.
    if (!themes.isEmpty())
        themes += hicolor;
    themes += dark() ? QStringLiteral("Papirus-Dark") : QStringLiteral("Papirus");
    themes += {QStringLiteral("Papirus"), QStringLiteral("Adwaita"), hicolor};
    themes.removeDuplicates();
    return themes;
}

bool Appearance::reducedMotion() const { return !animations; }

void Appearance::ask(const QString &group, const QString &key)
{
    QDBusMessage call = QDBusMessage::createMethodCall(portalService, portalPath, portalSettings, QStringLiteral("Read"));
    call.setArguments({group, key});
    auto *answer = new QDBusPendingCallWatcher(QDBusConnection::sessionBus().asyncCall(call, 5000), this);
    connect(answer, &QDBusPendingCallWatcher::finished, this, [this, group, key](QDBusPendingCallWatcher *watcher) {
        watcher->deleteLater();
        const QDBusPendingReply<QDBusVariant> reply = *watcher;
        if (!reply.isError())
            apply(group, key, reply.value().variant());
    });
}

void Appearance::settingChanged(const QString &group, const QString &key, const QDBusVariant &value)
{
    apply(group, key, value.variant());
}

void Appearance::apply(const QString &group, const QString &key, const QVariant &boxed)
{
    // Older portals answer `Read` with a variant inside a variant.
    QVariant value = boxed;
    while (value.canConvert<QDBusVariant>())
        value = value.value<QDBusVariant>().variant();

    if (group == appearanceGroup && key == QLatin1String("color-scheme"))
        colorScheme = value.toInt();
    else if (group == interfaceGroup && key == QLatin1String("icon-theme"))
        iconTheme = value.toString();
    else if (group == interfaceGroup && key == QLatin1String("enable-animations"))
        animations = value.toBool() && qEnvironmentVariableIsEmpty("KORVANE_REDUCED_MOTION");
    else if (group == interfaceGroup && key == QLatin1String("font-name"))
        fontFamily = value.toString().section(u' ', 0, -2); // "Cantarell 11"
    else
        return;
    paintApplication();
    Q_EMIT changed();
}

void Appearance::paintApplication()
{
    // Other styles bring the desktop's own colours; the plain one knows no dark.
    if (QApplication::style()->name() != QLatin1String("fusion"))
        return;
    const Theme &look = theme();
    QPalette palette;
    const QColor raised = look.dark ? look.ground.lighter(140) : QColor(0xf1, 0xf1, 0xf5);
    palette.setColor(QPalette::Window, look.ground);
    palette.setColor(QPalette::Base, look.dark ? look.ground.darker(115) : Qt::white);
    palette.setColor(QPalette::AlternateBase, look.ground);
    palette.setColor(QPalette::Button, raised);
    palette.setColor(QPalette::ToolTipBase, raised);
    for (const auto role : {QPalette::WindowText, QPalette::Text, QPalette::ButtonText, QPalette::ToolTipText})
        palette.setColor(role, look.text);
    palette.setColor(QPalette::PlaceholderText, look.secondary);
    palette.setColor(QPalette::Highlight, look.dark ? QColor(0x6b, 0x71, 0xe0) : look.accent);
    palette.setColor(QPalette::HighlightedText, Qt::white);
    palette.setColor(QPalette::Link, look.accent);
    for (const auto role : {QPalette::WindowText, QPalette::Text, QPalette::ButtonText})
        palette.setColor(QPalette::Disabled, role, look.faint);
    QApplication::setPalette(palette);
}

} // namespace korvane
