// Clicks beside the palette and on it, by a mouse that the X server believes in.
#include "tests/desktop/Person.h"
#include "tests/desktop/Scene.h"

#include "Vorrel/Views/PaletteInput.h"
#include "Vorrel/Views/QtDialogs.h"
#include "Vorrel/Views/X11Window.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QDialog>
#include <QWindow>

namespace korvane::test {

namespace {

class OutsideClick : public testing::Test {
protected:
    OutsideClick()
    {
        heard.set(true); // the server knows of it by the time the palette is up
        person.moveMouse(besides);
        scene.show();
        const ScreenRect at = scene.shownWindow().frame();
        frame = {at.x, at.y, at.width, at.height};
    }

    /// Clicks, and waits until this program has heard of it by the way that hears of everything.
    void click(const QPoint &place, std::uint8_t button = Person::left)
    {
        const int before = presses;
        person.press(place, button);
        ASSERT_TRUE(scene.waitFor([&] { return presses > before; }));
        scene.turn();
    }

    bool hides()
    {
        return scene.waitFor([&] { return !scene.controller->presented(); });
    }

    const QPoint besides{40, 900};
    Person person;
    int presses = 0;
    x11::PressWatch heard{[this](std::uint32_t, bool) { presses++; }};
    QRect frame;
    Scene scene;
};

} // namespace

TEST_F(OutsideClick, OnTheBareDesktopHidesThePalette)
{
    ASSERT_TRUE(scene.controller->presented());
    click(besides);
    EXPECT_TRUE(hides());
    EXPECT_TRUE(scene.waitFor([&] { return !scene.shownWindow().visible(); }));
}

TEST_F(OutsideClick, InAnotherProgramsWindowHidesThePaletteAndStillReachesThatWindow)
{
    for (const auto button : {Person::left, Person::right}) {
        if (!scene.controller->presented())
            scene.show();
        ForeignWindow other(QRect(60, 700, 200, 150));
        ASSERT_TRUE(scene.waitFor([&] { return other.hasKeyboard() || !scene.controller->presented(); }));
        if (!scene.controller->presented())
            scene.show();
        click(QPoint(150, 780), button);
        EXPECT_TRUE(hides());
        EXPECT_TRUE(scene.waitFor([&] { return other.presses() == 1; })) << other.presses() << ", button " << int(button);
    }
}

TEST_F(OutsideClick, OnThePaletteItselfNeverHides)
{
    const QPoint footer(frame.center().x(), frame.bottom() - 20);
    for (const QPoint &place : {frame.topLeft() + QPoint(300, 30), footer, frame.topLeft() + QPoint(3, 40)}) {
        click(place);
        EXPECT_TRUE(scene.controller->presented()) << place.x() << "," << place.y();
    }
}

TEST_F(OutsideClick, OnTheFieldsMenuNeverHidesEvenWhereItReachesBeyondThePalette)
{
    click(QPoint(frame.right() - 30, frame.top() + 32), Person::right);
    ASSERT_TRUE(
        scene.waitFor([] { return QApplication::activePopupWidget() && QApplication::activePopupWidget()->isVisible(); }));
    scene.turn();
    const QRect menu = QApplication::activePopupWidget()->frameGeometry();
    const QPoint beyond(menu.right() - 8, menu.top() + 14);
    ASSERT_FALSE(frame.contains(beyond)) << "the menu is to reach beyond the palette";
    click(beyond);
    EXPECT_TRUE(scene.controller->presented());
    // Whatever the click did to the menu, it is no reason for the palette to go.
    if (QWidget *still = QApplication::activePopupWidget())
        still->close();
    scene.turn();
    EXPECT_TRUE(scene.controller->presented());
}

TEST_F(OutsideClick, BesideTheOpenMenuOfTheFieldHidesBoth)
{
    click(frame.topLeft() + QPoint(200, 32), Person::right);
    ASSERT_TRUE(scene.waitFor([] { return QApplication::activePopupWidget() != nullptr; }));
    click(besides);
    EXPECT_TRUE(hides());
    EXPECT_TRUE(scene.waitFor([] { return QApplication::activePopupWidget() == nullptr; }));
}

TEST_F(OutsideClick, DoesNothingWhileADialogStands)
{
    QtDialogs dialogs(scene.appearance);
    dialogs.palette = [&] { return scene.shownWindow().surface(); };
    Begun<bool> asked(scene.loop, dialogs.confirm("Empty Trash", "This operation cannot be undone."));
    ASSERT_TRUE(scene.waitFor([&] { return scene.shownWindow().hasSheet() && QApplication::activeModalWidget(); }));
    click(besides);
    EXPECT_TRUE(scene.controller->presented());
    EXPECT_FALSE(asked.done());
    click(frame.bottomLeft() + QPoint(20, -20));
    EXPECT_TRUE(scene.controller->presented());

    qobject_cast<QDialog *>(QApplication::activeModalWidget())->reject();
    ASSERT_TRUE(scene.waitFor([&] { return asked.done() && !scene.shownWindow().hasSheet(); }));
    ASSERT_TRUE(scene.controller->presented());
    click(besides);
    EXPECT_TRUE(hides()) << "with the dialog gone a click beside is one again";
}

TEST_F(OutsideClick, InAnotherWindowOfThisProgramHidesThePalette)
{
    scene.wait(Milliseconds(600)); // a palette that has only just come takes the keyboard back
    QWidget settings(nullptr, Qt::Tool | Qt::WindowDoesNotAcceptFocus);
    settings.setAttribute(Qt::WA_ShowWithoutActivating);
    settings.setGeometry(60, 700, 200, 150);
    settings.show();
    ASSERT_TRUE(scene.waitFor([&] { return settings.windowHandle()->isExposed(); }));
    const QPoint corner = person.placeOf(xcb_window_t(settings.winId()));
    ASSERT_TRUE(scene.controller->presented());
    click(corner + QPoint(100, 80));
    EXPECT_TRUE(hides());
}

TEST_F(OutsideClick, IsNotListenedForWhileThePaletteIsHidden)
{
    click(besides);
    ASSERT_TRUE(scene.waitFor([&] { return !scene.shownWindow().visible(); }));
    click(besides);
    scene.show();
    scene.turn();
    EXPECT_TRUE(scene.controller->presented()) << "a click from before the show is none of this session's";
}

} // namespace korvane::test
