#pragma once

#include <array>
#include <atomic>
#include <functional>
#include <list>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <xcb/xcb.h>

namespace korvane::test {

/// Another program that owns the clipboard of the display in $DISPLAY, on a connection and a thread of its own. The clipboard
/// is empty again when it goes.
class ClipboardOwner {
public:
    /// What it has, by the names of the forms; forms in `mute` are offered and never answered.
    struct Copy {
        std::map<std::string, std::string> forms;
        std::vector<std::string> mute = {};
        bool answersNothing = false; ///< Not even what it has.
    };

    ClipboardOwner();
    ~ClipboardOwner();
    ClipboardOwner(const ClipboardOwner &) = delete;
    ClipboardOwner &operator=(const ClipboardOwner &) = delete;

    void copy(Copy what);
    void copy(std::string text) { copy(Copy{.forms = {{"UTF8_STRING", std::move(text)}}}); }
    /// A text of so many bytes that it does not hold itself, sent piece by piece and announced by its size or by less.
    void copyHuge(std::size_t bytes, std::uint32_t announced);
    /// Gives the clipboard up.
    void clear();

    /// Called on the owner's thread before each answer, with the form's name.
    std::function<void(const std::string &form)> onRequest = [](const std::string &) {};
    std::atomic<bool> diesAfterPiece = false; ///< Leaves the display when the first piece was taken.
    /// Ends the connection of whoever asked last.
    void cutOff() { ::xcb_kill_client(x, requestor), ::xcb_flush(x); }
    std::atomic<int> asked = 0; ///< Questions that arrived.
    std::atomic<std::size_t> sent = 0; ///< Bytes of pieces.

private:
    struct Transfer {
        xcb_window_t requestor;
        xcb_atom_t property, type;
        std::size_t left;
    };

    xcb_atom_t atom(const std::string &name);
    std::string nameOf(xcb_atom_t atom);
    void take();
    void run();
    void answer(const xcb_selection_request_event_t &request);
    bool convert(const xcb_selection_request_event_t &request, const std::string &form);
    void nextPiece(const xcb_property_notify_event_t &event);

    xcb_connection_t *const x;
    const xcb_window_t window;
    std::atomic<xcb_window_t> requestor = XCB_NONE;
    std::mutex mutex;
    Copy present; // under the mutex
    std::size_t hugeSize = 0; // under the mutex; 0 for none
    std::uint32_t hugeAnnounced = 0; // under the mutex
    std::list<Transfer> transfers; // on the thread
    std::atomic<bool> over = false;
    std::thread thread;
};

/// A window of another program, which the desktop brings to the front. Its classes are "editor" and "Example Editor".
class FrontWindow {
public:
    FrontWindow();
    ~FrontWindow() { ::xcb_disconnect(x); }
    FrontWindow(const FrontWindow &) = delete;
    FrontWindow &operator=(const FrontWindow &) = delete;

private:
    xcb_connection_t *const x;
};

} // namespace korvane::test
