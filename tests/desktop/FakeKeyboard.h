#pragma once

#include <cstdint>
#include <string_view>

typedef struct xcb_connection_t xcb_connection_t;

namespace korvane::test {

/// Presses the keys of a display (XTest), by their places on a US keyboard. A connection of its own.
class FakeKeyboard {
public:
    static constexpr std::uint8_t control = 37, shift = 50, alt = 64, space = 65, capsLock = 66, numLock = 77, super = 133;

    explicit FakeKeyboard(const char *display = nullptr);
    ~FakeKeyboard();
    FakeKeyboard(const FakeKeyboard &) = delete;
    FakeKeyboard &operator=(const FakeKeyboard &) = delete;

    /// X key code of the key that says `letter` on a US keyboard.
    static std::uint8_t keyFor(char letter);

    void press(std::uint8_t key) { send(true, key); }
    void release(std::uint8_t key) { send(false, key); }
    void tap(std::uint8_t key);
    /// Taps `key` while `modifier` is held.
    void combine(std::uint8_t modifier, std::uint8_t key);
    /// Taps the letters one after the other, without a pause.
    void type(std::string_view letters);
    /// Takes Alt and `key` away from every other program, as one that came first does, for as long as this lives.
    void takeAway(std::uint8_t key);
    /// Returns when the server has all that was sent.
    void sync();

private:
    void send(bool pressed, std::uint8_t key);

    xcb_connection_t *const connection;
    const std::uint32_t root;
};

} // namespace korvane::test
