#include "tests/desktop/Person.h"

#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <xcb/xtest.h>

namespace korvane::test {

namespace {

struct Free {
    void operator()(void *reply) const { std::free(reply); }
};
template <class T> std::unique_ptr<T, Free> owned(T *reply) { return std::unique_ptr<T, Free>(reply); }

xcb_connection_t *connect()
{
    xcb_connection_t *x = xcb_connect(nullptr, nullptr);
    if (xcb_connection_has_error(x))
        throw std::runtime_error("there is no X server");
    return x;
}

xcb_screen_t &screenOf(xcb_connection_t *x) { return *xcb_setup_roots_iterator(xcb_get_setup(x)).data; }

constexpr std::uint8_t firstKey = 8; // of the server's codes

} // namespace

Person::Person() : x(connect()), root(screenOf(x).root) { }

Person::~Person() { xcb_disconnect(x); }

void Person::fake(std::uint8_t type, std::uint8_t detail, const QPoint &place) const
{
    xcb_test_fake_input(x, type, detail, XCB_CURRENT_TIME, root, std::int16_t(place.x()), std::int16_t(place.y()), 0);
}

void Person::finish() const { owned(xcb_get_input_focus_reply(x, xcb_get_input_focus(x), nullptr)); }

void Person::moveMouse(const QPoint &place) const
{
    fake(XCB_MOTION_NOTIFY, 0, place);
    finish();
}

void Person::press(const QPoint &place, std::uint8_t button) const
{
    fake(XCB_MOTION_NOTIFY, 0, place);
    fake(XCB_BUTTON_PRESS, button);
    fake(XCB_BUTTON_RELEASE, button);
    finish();
}

void Person::key(std::uint8_t code, std::initializer_list<std::uint8_t> held) const
{
    for (const std::uint8_t modifier : held)
        fake(XCB_KEY_PRESS, std::uint8_t(modifier + firstKey));
    fake(XCB_KEY_PRESS, std::uint8_t(code + firstKey));
    fake(XCB_KEY_RELEASE, std::uint8_t(code + firstKey));
    for (const std::uint8_t modifier : held)
        fake(XCB_KEY_RELEASE, std::uint8_t(modifier + firstKey));
    finish();
}

QRgb Person::colourAt(const QPoint &place) const
{
    const auto picture = owned(xcb_get_image_reply(x,
        xcb_get_image(x, XCB_IMAGE_FORMAT_Z_PIXMAP, root, std::int16_t(place.x()), std::int16_t(place.y()), 1, 1, 0xffffff),
        nullptr));
    if (!picture || xcb_get_image_data_length(picture.get()) < 4)
        throw std::runtime_error("the screen cannot be read");
    return *reinterpret_cast<const QRgb *>(xcb_get_image_data(picture.get())) | 0xff000000;
}

void Person::paintDesktop(QRgb colour) const
{
    const std::uint32_t pixel = colour & 0xffffff;
    xcb_change_window_attributes(x, root, XCB_CW_BACK_PIXEL, &pixel);
    xcb_clear_area(x, 0, root, 0, 0, 0, 0);
    finish();
}

QPoint Person::placeOf(xcb_window_t window) const
{
    const auto place = owned(xcb_translate_coordinates_reply(x, xcb_translate_coordinates(x, window, root, 0, 0), nullptr));
    return place ? QPoint(place->dst_x, place->dst_y) : QPoint(-1, -1);
}

xcb_window_t Person::keyboardOwner() const
{
    const auto focus = owned(xcb_get_input_focus_reply(x, xcb_get_input_focus(x), nullptr));
    return focus ? focus->focus : xcb_window_t(XCB_WINDOW_NONE);
}

ForeignWindow::ForeignWindow(const QRect &place) : x(connect()), window(xcb_generate_id(x))
{
    const xcb_screen_t &screen = screenOf(x);
    const std::uint32_t values[] = {screen.white_pixel, XCB_EVENT_MASK_BUTTON_PRESS};
    xcb_create_window(x, XCB_COPY_FROM_PARENT, window, screen.root, std::int16_t(place.x()), std::int16_t(place.y()),
        std::uint16_t(place.width()), std::uint16_t(place.height()), 0, XCB_WINDOW_CLASS_INPUT_OUTPUT, XCB_COPY_FROM_PARENT,
        XCB_CW_BACK_PIXEL | XCB_CW_EVENT_MASK, values);
    constexpr std::uint32_t placeIsTheUsers = 1, takesInput = 1;
    const std::uint32_t size[18] = {placeIsTheUsers};
    xcb_change_property(x, XCB_PROP_MODE_REPLACE, window, XCB_ATOM_WM_NORMAL_HINTS, XCB_ATOM_WM_SIZE_HINTS, 32, 18, size);
    const std::uint32_t hints[9] = {takesInput, 1};
    xcb_change_property(x, XCB_PROP_MODE_REPLACE, window, XCB_ATOM_WM_HINTS, XCB_ATOM_WM_HINTS, 32, 9, hints);
    xcb_change_property(x, XCB_PROP_MODE_REPLACE, window, XCB_ATOM_WM_NAME, XCB_ATOM_STRING, 8, 7, "Foreign");
    xcb_map_window(x, window);
    xcb_flush(x);
}

ForeignWindow::~ForeignWindow() { xcb_disconnect(x); }

bool ForeignWindow::hasKeyboard() const
{
    const auto focus = owned(xcb_get_input_focus_reply(x, xcb_get_input_focus(x), nullptr));
    return focus && focus->focus == window;
}

void ForeignWindow::takeKeyboard() const
{
    static constexpr char name[] = "_NET_ACTIVE_WINDOW";
    const auto atom = owned(xcb_intern_atom_reply(x, xcb_intern_atom(x, 0, sizeof name - 1, name), nullptr));
    xcb_client_message_event_t message{};
    message.response_type = XCB_CLIENT_MESSAGE;
    message.format = 32;
    message.window = window;
    message.type = atom ? atom->atom : xcb_atom_t(XCB_ATOM_NONE);
    message.data.data32[0] = 2; // on behalf of the user
    xcb_send_event(x, 0, screenOf(x).root, XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY | XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT,
        reinterpret_cast<const char *>(&message));
    xcb_flush(x);
}

int ForeignWindow::presses()
{
    while (const auto event = owned(xcb_poll_for_event(x)))
        counted += (event->response_type & 0x7f) == XCB_BUTTON_PRESS;
    return counted;
}

} // namespace korvane::test
