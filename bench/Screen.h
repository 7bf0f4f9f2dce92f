#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <vector>

struct xcb_connection_t;
struct xcb_screen_t;

namespace korvane::bench {

/// The private X server as a person in front of it has it: its picture, and its keyboard. Everything that goes wrong
/// throws `std::runtime_error`.
class Screen {
public:
    Screen();
    ~Screen();
    Screen(const Screen &) = delete;

    struct Area {
        int x, y, width, height; ///< In pixels of the whole screen.
    };
    int width() const;
    int height() const;
    /// What can be seen there now, line by line.
    std::vector<std::uint32_t> pixels(const Area &area) const;

    /// Looks again until `reached`, at most 20 seconds; `otherwise` says what then is wrong.
    void await(const std::function<bool()> &reached, const char *otherwise) const;

    /// Presses and releases a key while others are held. Codes are those of Linux input events.
    void press(std::uint8_t key, std::initializer_list<std::uint8_t> held = {}) const;
    void moveMouse(int x, int y) const;

private:
    xcb_connection_t *connection;
    xcb_screen_t *screen;
};

} // namespace korvane::bench
