#include "tests/desktop/FakeKeyboard.h"

#include "Vorrel/Platform/VirtualKeys.h"

#include <cstdlib>
#include <xcb/xcb.h>
#include <xcb/xtest.h>

namespace korvane::test {

FakeKeyboard::FakeKeyboard(const char *display) :
    connection(::xcb_connect(display, nullptr)), root(::xcb_setup_roots_iterator(::xcb_get_setup(connection)).data->root)
{
}

FakeKeyboard::~FakeKeyboard() { ::xcb_disconnect(connection); }

std::uint8_t FakeKeyboard::keyFor(char letter)
{
    const VirtualKey *const key = virtualKeyNamed(std::uint32_t(letter));
    return key ? std::uint8_t(key->position + 8) : 0;
}

void FakeKeyboard::send(bool pressed, std::uint8_t key)
{
    ::xcb_test_fake_input(connection, pressed ? XCB_KEY_PRESS : XCB_KEY_RELEASE, key, XCB_CURRENT_TIME, root, 0, 0, 0);
    ::xcb_flush(connection);
}

void FakeKeyboard::tap(std::uint8_t key)
{
    press(key);
    release(key);
}

void FakeKeyboard::combine(std::uint8_t modifier, std::uint8_t key)
{
    press(modifier);
    tap(key);
    release(modifier);
}

void FakeKeyboard::type(std::string_view letters)
{
    for (const char letter : letters)
        tap(keyFor(letter));
}

void FakeKeyboard::sync() { std::free(::xcb_get_input_focus_reply(connection, ::xcb_get_input_focus(connection), nullptr)); }

void FakeKeyboard::takeAway(std::uint8_t key)
{
    ::xcb_grab_key(connection, 0, root, XCB_MOD_MASK_1, key, XCB_GRAB_MODE_ASYNC, XCB_GRAB_MODE_ASYNC);
    sync();
}

} // namespace korvane::test
