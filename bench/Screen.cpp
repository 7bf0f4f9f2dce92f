#include "bench/Screen.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <thread>
#include <xcb/xcb.h>
#include <xcb/xtest.h>

namespace korvane::bench {

using namespace std::chrono_literals;

Screen::Screen() : connection(xcb_connect(nullptr, nullptr))
{
    if (xcb_connection_has_error(connection))
        throw std::runtime_error("there is no X server");
    screen = xcb_setup_roots_iterator(xcb_get_setup(connection)).data;
}

Screen::~Screen() { xcb_disconnect(connection); }

int Screen::width() const { return screen->width_in_pixels; }

int Screen::height() const { return screen->height_in_pixels; }

std::vector<std::uint32_t> Screen::pixels(const Area &area) const
{
    const auto cookie = xcb_get_image(connection, XCB_IMAGE_FORMAT_Z_PIXMAP, screen->root, std::int16_t(area.x),
        std::int16_t(area.y), std::uint16_t(area.width), std::uint16_t(area.height), 0xffffff);
    xcb_get_image_reply_t *const reply = xcb_get_image_reply(connection, cookie, nullptr);
    std::vector<std::uint32_t> values(std::size_t(area.width) * std::size_t(area.height));
    const bool whole = reply && std::size_t(xcb_get_image_data_length(reply)) == values.size() * sizeof values.front();
    if (whole)
        std::memcpy(values.data(), xcb_get_image_data(reply), values.size() * sizeof values.front());
    std::free(reply);
    if (!whole)
        throw std::runtime_error("the screen cannot be read; its colours must have 24 bits");
    return values;
}

void Screen::await(const std::function<bool()> &reached, const char *otherwise) const
{
    const auto deadline = std::chrono::steady_clock::now() + 20s;
    while (!reached()) {
        if (std::chrono::steady_clock::now() > deadline)
            throw std::runtime_error(otherwise);
        std::this_thread::sleep_for(100us); // what is looked at needs the processor too
    }
}

void Screen::press(std::uint8_t key, std::initializer_list<std::uint8_t> held) const
{
    constexpr std::uint8_t firstCode = 8; // of the server's
    const auto fake = [this](std::uint8_t type, std::uint8_t code) {
        xcb_test_fake_input(connection, type, std::uint8_t(code + firstCode), XCB_CURRENT_TIME, XCB_WINDOW_NONE, 0, 0, 0);
    };
    for (const std::uint8_t modifier : held)
        fake(XCB_KEY_PRESS, modifier);
    fake(XCB_KEY_PRESS, key);
    fake(XCB_KEY_RELEASE, key);
    for (const std::uint8_t modifier : held)
        fake(XCB_KEY_RELEASE, modifier);
    xcb_flush(connection);
}

void Screen::moveMouse(int x, int y) const
{
    xcb_test_fake_input(connection, XCB_MOTION_NOTIFY, 0, XCB_CURRENT_TIME, screen->root, std::int16_t(x), std::int16_t(y), 0);
    xcb_flush(connection);
}

} // namespace korvane::bench
