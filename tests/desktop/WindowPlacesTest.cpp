// Where the palette stands on one and two monitors, what it looks like at its edges, and who has the keyboard afterwards.
#include "tests/desktop/Person.h"
#include "tests/desktop/Scene.h"

#include "Vorrel/Views/PaletteInput.h"
#include "Vorrel/Views/X11Window.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QProcess>
#include <QScreen>
#include <QWindow>

namespace korvane::test {

namespace {

void xrandr(const QStringList &arguments) { EXPECT_EQ(QProcess::execute("xrandr", arguments), 0); }

/// The desktop of 1920 units in two monitors, the right one without a panel. Undone at the end.
class TwoMonitors : public testing::Test {
protected:
    TwoMonitors()
    {
        person.moveMouse({1400, 500});
        xrandr({"--setmonitor", "L", "960/200x1080/270+0+0", "screen"});
        xrandr({"--setmonitor", "R", "960/200x1080/270+960+0", "none"});
        awaitScreens(2);
    }
    ~TwoMonitors() override
    {
        if (scene.controller->presented())
            scene.controller->toggle();
        if (QGuiApplication::screens().size() == 2)
            xrandr({"--delmonitor", "R"});
        xrandr({"--delmonitor", "L"});
        scene.waitFor([] { return QGuiApplication::primaryScreen()->geometry().width() == 1920; });
    }

    void awaitScreens(int count)
    {
        ASSERT_TRUE(scene.waitFor([&] { return QGuiApplication::screens().size() == count; }))
            << QGuiApplication::screens().size();
    }

    /// Whether the server shows the palette centred on the screen and 8 % of its height above the middle.
    void expectOn(const QRect &screen)
    {
        const QRect area = areaOf(screen);
        const QPoint wanted(area.x() + (area.width() - QtPaletteWindow::width) / 2,
            area.y() + (area.height() - QtPaletteWindow::height) / 2 - area.height() * 8 / 100);
        EXPECT_TRUE(scene.waitFor([&] { return place() == wanted; }))
            << "wanted " << wanted.x() << "," << wanted.y() << ", stands at " << place().x() << "," << place().y();
        const ScreenRect frame = scene.shownWindow().frame();
        EXPECT_EQ(QPoint(frame.x, frame.y), wanted);
        // Menus and clicks go by what the toolkit believes.
        const QWidget &surface = *scene.window->surface();
        EXPECT_TRUE(scene.waitFor([&] { return surface.mapToGlobal(QPoint()) == person.placeOf(surface.internalWinId()); }))
            << surface.mapToGlobal(QPoint()).x() << "," << surface.mapToGlobal(QPoint()).y();
    }

    static QRect areaOf(const QRect &screen)
    {
        for (const QScreen *one : QGuiApplication::screens())
            if (one->geometry() == screen)
                return one->availableGeometry();
        ADD_FAILURE() << "there is no such screen";
        return {};
    }

    /// The palette's upper left corner by the server's word.
    QPoint place() const
    {
        const QWidget &surface = *scene.window->surface();
        const int margin = (surface.width() - QtPaletteWindow::width) / 2;
        return person.placeOf(xcb_window_t(surface.winId())) + QPoint(margin, margin);
    }

    void hide()
    {
        scene.controller->toggle();
        ASSERT_TRUE(scene.waitFor([&] { return !scene.shownWindow().visible(); }));
    }

    const QRect left{0, 0, 960, 1080}, right{960, 0, 960, 1080};
    Person person;
    Scene scene;
};

} // namespace

TEST_F(TwoMonitors, ThePaletteOpensOnTheOneWithTheMouse)
{
    scene.show();
    expectOn(right);
    hide();
    person.moveMouse({100, 1000});
    scene.show();
    expectOn(left);
    hide();
    person.moveMouse({960, 0});
    scene.show();
    expectOn(right);
}

TEST_F(TwoMonitors, AfterOneWasTakenAwayWhileItWasHiddenItOpensOnTheOneThatIsLeft)
{
    scene.show();
    expectOn(right);
    hide();
    xrandr({"--delmonitor", "R"});
    awaitScreens(1);
    scene.show();
    expectOn(left);
}

TEST_F(TwoMonitors, AShownPaletteMovesToTheOneThatIsLeftAndKeepsTheKeyboard)
{
    scene.show();
    expectOn(right);
    xrandr({"--delmonitor", "R"});
    awaitScreens(1);
    expectOn(left);
    EXPECT_TRUE(scene.controller->presented());
    EXPECT_TRUE(scene.waitFor([&] { return scene.shownWindow().hasKeyboard(); }));
    person.key(30); // the key "a"
    EXPECT_TRUE(scene.waitFor([&] { return scene.palette().query() == "a"; }));
}

TEST_F(TwoMonitors, AMonitorThatComesBackIsUsedAgain)
{
    xrandr({"--delmonitor", "R"});
    awaitScreens(1);
    scene.show();
    expectOn(left);
    hide();
    xrandr({"--setmonitor", "R", "960/200x1080/270+960+0", "none"});
    awaitScreens(2);
    scene.show();
    expectOn(right);
}

// The keyboard afterwards

TEST(KeyboardAfterwards, IsWhereItWasBeforeThePaletteCame)
{
    Person person;
    person.moveMouse({40, 1000});
    Scene scene;
    ForeignWindow first(QRect(60, 700, 200, 150));
    ASSERT_TRUE(scene.waitFor([&] { return first.hasKeyboard(); }));
    ForeignWindow second(QRect(300, 700, 200, 150));
    ASSERT_TRUE(scene.waitFor([&] { return second.hasKeyboard(); }));
    first.takeKeyboard();
    ASSERT_TRUE(scene.waitFor([&] { return first.hasKeyboard(); }));
    for (int round = 0; round < 3; round++) {
        scene.show();
        EXPECT_FALSE(first.hasKeyboard());
        scene.controller->toggle();
        ASSERT_TRUE(scene.waitFor([&] { return !scene.shownWindow().visible(); }));
        EXPECT_TRUE(scene.waitFor([&] { return first.hasKeyboard(); })) << "round " << round;
    }
}

// Motion and edges

TEST(ReducedMotion, ShowAndHideTakeNoTimeAndTheWindowStillGoes)
{
    qputenv("KORVANE_REDUCED_MOTION", "1");
    {
        Scene scene;
        scene.show();
        EXPECT_EQ(scene.shownWindow().surface()->windowOpacity(), 1);
        scene.controller->toggle();
        EXPECT_TRUE(scene.shownWindow().visible()) << "the end is never inside the call";
        EXPECT_EQ(scene.shownWindow().surface()->windowOpacity(), 0);
        scene.turn();
        EXPECT_FALSE(scene.shownWindow().visible());
    }
    qunsetenv("KORVANE_REDUCED_MOTION");
}

TEST(PaletteEdges, TheCornersShowTheDesktopAndAShadowLiesAroundOnlyWhereWindowsAreComposed)
{
    const QRgb desktop = qRgb(0x3b, 0x6e, 0xa5); // what the composed desktop has as its background already
    Person person;
    const bool composed = x11::compositorRuns();
    if (!composed)
        person.paintDesktop(desktop);
    Scene scene;
    person.moveMouse({40, 900});
    scene.show();
    const ScreenRect at = scene.shownWindow().frame();
    const QPoint corner(at.x, at.y), middle(at.x + at.width / 2, at.y);
    ASSERT_TRUE(scene.waitFor([&] { return person.colourAt(middle + QPoint(0, 3)) == scene.appearance.theme().ground.rgb(); }))
        << std::hex << person.colourAt(middle + QPoint(0, 3));
    const QColor inCorner = person.colourAt(corner), below = person.colourAt(middle + QPoint(0, at.height + 8)),
                 far = person.colourAt(middle + QPoint(0, at.height + 120));
    EXPECT_EQ(far.rgb(), desktop);
    EXPECT_GT(inCorner.blue(), inCorner.red() + 20) << "a corner lets the desktop through: " << inCorner.name().toStdString();
    if (composed) {
        EXPECT_LT(below.lightness(), far.lightness() - 10) << below.name().toStdString();
        EXPECT_LT(inCorner.lightness(), far.lightness());
    } else {
        EXPECT_EQ(below, far) << "nothing but the palette's own shape is painted";
        EXPECT_EQ(inCorner, far);
    }
}

TEST(PaletteEdges, ACompositorThatComesOrGoesBetweenTwoShowsChangesThem)
{
    if (x11::compositorRuns())
        GTEST_SKIP() << "this desktop has one already";
    Scene scene;
    QProcess compositor;
    const auto showsShadow = [&] {
        scene.show();
        const QWidget &surface = *scene.shownWindow().surface();
        const bool wide = surface.width() > QtPaletteWindow::width;
        EXPECT_EQ(surface.windowHandle()->mask().isEmpty(), wide) << "corners are cut off where nothing is composed";
        scene.controller->toggle();
        EXPECT_TRUE(scene.waitFor([&] { return !scene.shownWindow().visible(); }));
        return wide;
    };
    EXPECT_FALSE(showsShadow());
    compositor.start("picom", {"--backend", "xrender"});
    ASSERT_TRUE(scene.waitFor([] { return x11::compositorRuns(); }));
    EXPECT_TRUE(showsShadow());
    compositor.terminate();
    ASSERT_TRUE(compositor.waitForFinished(5000));
    ASSERT_TRUE(scene.waitFor([] { return !x11::compositorRuns(); }));
    EXPECT_FALSE(showsShadow());
}

} // namespace korvane::test
