#include "tests/desktop/ClipboardOwner.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <poll.h>

namespace korvane::test {

namespace {

struct Free {
    void operator()(void *reply) const { std::free(reply); }
};
template <class Reply> using Owned = std::unique_ptr<Reply, Free>;

constexpr std::size_t pieceSize = 128 * 1024;
constexpr std::size_t largestAtOnce = 200 * 1024;

} // namespace

ClipboardOwner::ClipboardOwner() : x(::xcb_connect(nullptr, nullptr)), window(::xcb_generate_id(x))
{
    const xcb_screen_t *const screen = ::xcb_setup_roots_iterator(::xcb_get_setup(x)).data;
    ::xcb_create_window(x, XCB_COPY_FROM_PARENT, window, screen->root, 0, 0, 1, 1, 0, XCB_WINDOW_CLASS_INPUT_OUTPUT,
        XCB_COPY_FROM_PARENT, 0, nullptr);
    ::xcb_flush(x);
    thread = std::thread([this] { run(); });
}

ClipboardOwner::~ClipboardOwner()
{
    over = true;
    thread.join();
    ::xcb_disconnect(x);
}

void ClipboardOwner::copy(Copy what)
{
    {
        std::scoped_lock lock(mutex);
        present = std::move(what);
        hugeSize = 0;
    }
    take();
}

void ClipboardOwner::copyHuge(std::size_t bytes, std::uint32_t announced)
{
    {
        std::scoped_lock lock(mutex);
        present = {.forms = {{"UTF8_STRING", ""}}};
        hugeSize = bytes;
        hugeAnnounced = announced;
    }
    take();
}

void ClipboardOwner::clear()
{
    ::xcb_set_selection_owner(x, XCB_NONE, atom("CLIPBOARD"), XCB_CURRENT_TIME);
    ::xcb_flush(x);
}

void ClipboardOwner::take()
{
    ::xcb_set_selection_owner(x, window, atom("CLIPBOARD"), XCB_CURRENT_TIME);
    const Owned<xcb_get_input_focus_reply_t> done(::xcb_get_input_focus_reply(x, ::xcb_get_input_focus(x), nullptr));
}

xcb_atom_t ClipboardOwner::atom(const std::string &name)
{
    const Owned<xcb_intern_atom_reply_t> reply(
        ::xcb_intern_atom_reply(x, ::xcb_intern_atom(x, 0, std::uint16_t(name.size()), name.data()), nullptr));
    return reply ? reply->atom : xcb_atom_t(XCB_ATOM_NONE);
}

std::string ClipboardOwner::nameOf(xcb_atom_t atom)
{
    const Owned<xcb_get_atom_name_reply_t> reply(::xcb_get_atom_name_reply(x, ::xcb_get_atom_name(x, atom), nullptr));
    return reply ? std::string(::xcb_get_atom_name_name(reply.get()), std::size_t(::xcb_get_atom_name_name_length(reply.get())))
                 : "";
}

void ClipboardOwner::run()
{
    while (!over && !::xcb_connection_has_error(x)) {
        pollfd ready{::xcb_get_file_descriptor(x), POLLIN, 0};
        ::poll(&ready, 1, 5);
        while (const Owned<xcb_generic_event_t> event{::xcb_poll_for_event(x)}) {
            const int kind = event->response_type & 0x7f;
            if (kind == XCB_SELECTION_REQUEST)
                answer(reinterpret_cast<const xcb_selection_request_event_t &>(*event));
            else if (kind == XCB_PROPERTY_NOTIFY)
                nextPiece(reinterpret_cast<const xcb_property_notify_event_t &>(*event));
        }
    }
}

void ClipboardOwner::answer(const xcb_selection_request_event_t &request)
{
    const std::string form = nameOf(request.target);
    requestor = request.requestor;
    ++asked;
    onRequest(form);
    {
        std::scoped_lock lock(mutex);
        if (present.answersNothing || std::ranges::find(present.mute, form) != present.mute.end())
            return;
    }
    xcb_selection_notify_event_t notice{};
    notice.response_type = XCB_SELECTION_NOTIFY;
    notice.time = request.time;
    notice.requestor = request.requestor;
    notice.selection = request.selection;
    notice.target = request.target;
    notice.property = convert(request, form) ? request.property : xcb_atom_t(XCB_ATOM_NONE);
    std::array<char, 32> bytes{};
    std::copy_n(reinterpret_cast<const char *>(&notice), sizeof notice, bytes.begin());
    ::xcb_send_event(x, 0, request.requestor, XCB_EVENT_MASK_NO_EVENT, bytes.data());
    ::xcb_flush(x);
}

bool ClipboardOwner::convert(const xcb_selection_request_event_t &request, const std::string &form)
{
    std::scoped_lock lock(mutex);
    const auto set = [&](xcb_atom_t type, std::uint8_t format, std::size_t count, const void *data) {
        ::xcb_change_property(
            x, XCB_PROP_MODE_REPLACE, request.requestor, request.property, type, format, std::uint32_t(count), data);
    };
    if (form == "TARGETS") {
        std::vector<xcb_atom_t> all{atom("TARGETS")};
        for (const auto &[name, content] : present.forms)
            all.push_back(atom(name));
        for (const auto &name : present.mute)
            all.push_back(atom(name));
        set(XCB_ATOM_ATOM, 32, all.size(), all.data());
        return true;
    }
    const auto found = present.forms.find(form);
    if (found == present.forms.end())
        return false;
    const std::string &content = found->second;
    if (hugeSize == 0 && content.size() <= largestAtOnce && !diesAfterPiece) {
        set(request.target, 8, content.size(), content.data());
        return true;
    }
    const std::uint32_t events = XCB_EVENT_MASK_PROPERTY_CHANGE;
    ::xcb_change_window_attributes(x, request.requestor, XCB_CW_EVENT_MASK, &events);
    const std::size_t size = hugeSize == 0 ? content.size() : hugeSize;
    const std::uint32_t announced = hugeSize == 0 ? std::uint32_t(size) : hugeAnnounced;
    set(atom("INCR"), 32, 1, &announced);
    transfers.push_back({request.requestor, request.property, request.target, size});
    return true;
}

void ClipboardOwner::nextPiece(const xcb_property_notify_event_t &event)
{
    if (event.state != XCB_PROPERTY_DELETE)
        return;
    const auto transfer = std::ranges::find_if(
        transfers, [&](const Transfer &one) { return one.requestor == event.window && one.property == event.atom; });
    if (transfer == transfers.end())
        return;
    if (diesAfterPiece && sent > 0) {
        over = true;
        ::xcb_set_close_down_mode(x, XCB_CLOSE_DOWN_DESTROY_ALL);
        ::xcb_destroy_window(x, window);
        ::xcb_flush(x);
        return;
    }
    const std::size_t size = std::min(pieceSize, transfer->left);
    const std::string piece(size, 'x');
    ::xcb_change_property(
        x, XCB_PROP_MODE_REPLACE, event.window, event.atom, transfer->type, 8, std::uint32_t(size), piece.data());
    ::xcb_flush(x);
    sent += size;
    transfer->left -= size;
    if (size == 0)
        transfers.erase(transfer);
}

FrontWindow::FrontWindow() : x(::xcb_connect(nullptr, nullptr))
{
    const xcb_screen_t *const screen = ::xcb_setup_roots_iterator(::xcb_get_setup(x)).data;
    const xcb_window_t window = ::xcb_generate_id(x);
    const std::uint32_t ground = screen->white_pixel; // without a picture some desktops do not show it
    ::xcb_create_window(x, XCB_COPY_FROM_PARENT, window, screen->root, 0, 0, 200, 100, 0, XCB_WINDOW_CLASS_INPUT_OUTPUT,
        XCB_COPY_FROM_PARENT, XCB_CW_BACK_PIXEL, &ground);
    constexpr char named[] = "editor\0Example Editor";
    ::xcb_change_property(x, XCB_PROP_MODE_REPLACE, window, XCB_ATOM_WM_CLASS, XCB_ATOM_STRING, 8, sizeof named, named);
    ::xcb_map_window(x, window);
    ::xcb_flush(x);
}

} // namespace korvane::test
