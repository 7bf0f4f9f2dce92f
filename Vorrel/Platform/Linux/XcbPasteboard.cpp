#include "Vorrel/Platform/Linux/XcbPasteboard.h"

#include "Support/Descriptor.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <list>
#include <memory>
#include <optional>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>
#include <xcb/xcb.h>

namespace korvane {

namespace {

using SteadyClock = std::chrono::steady_clock;

constexpr std::chrono::seconds ownershipLimit{2};
constexpr std::chrono::seconds farewellLimit{10}; // for transfers under way when the clipboard changes hands

struct Free {
    void operator()(void *reply) const { std::free(reply); }
};
template <class Reply> using Owned = std::unique_ptr<Reply, Free>;

/// `text` in Latin-1, what it lacks as "?".
std::string latin1(const std::string &text)
{
    std::string result;
    for (std::size_t at = 0; at < text.size();) {
        const auto byte = static_cast<unsigned char>(text[at]);
        const std::size_t length = byte < 0x80 ? 1 : byte < 0xE0 ? 2 : byte < 0xF0 ? 3 : 4;
        if (length == 1)
            result.push_back(text[at]);
        else if (length == 2 && byte <= 0xC3 && at + 1 < text.size())
            result.push_back(static_cast<char>((byte & 3) << 6 | (static_cast<unsigned char>(text[at + 1]) & 0x3F)));
        else
            result.push_back('?');
        at += length;
    }
    return result;
}

/// Owns the clipboard in the helper process and answers those who paste.
class Owner {
public:
    Owner(const std::string &display, std::string text) :
        connection(::xcb_connect(display.c_str(), nullptr)), text(std::move(text))
    {
    }

    /// False when the display is not there or does not give the clipboard.
    bool take()
    {
        if (::xcb_connection_has_error(connection) || !internAtoms())
            return false;
        window = ::xcb_generate_id(connection);
        const xcb_screen_t *const screen = ::xcb_setup_roots_iterator(::xcb_get_setup(connection)).data;
        const std::uint32_t events = XCB_EVENT_MASK_PROPERTY_CHANGE;
        ::xcb_create_window(connection, XCB_COPY_FROM_PARENT, window, screen->root, -1, -1, 1, 1, 0,
            XCB_WINDOW_CLASS_INPUT_OUTPUT, XCB_COPY_FROM_PARENT, XCB_CW_EVENT_MASK, &events);
        const auto now = serverTime();
        if (!now)
            return false;
        taken = *now;
        ::xcb_set_selection_owner(connection, window, atom(clipboard), taken);
        const Owned<xcb_get_selection_owner_reply_t> owner(
            ::xcb_get_selection_owner_reply(connection, ::xcb_get_selection_owner(connection, atom(clipboard)), nullptr));
        return owner && owner->owner == window;
    }

    /// Answers until somebody else owns the clipboard and the transfers under way have ended.
    void serve()
    {
        while (!replaced || (!transfers.empty() && SteadyClock::now() < farewell)) {
            ::xcb_flush(connection);
            // Whatever sends or asks may read events as well, of which the socket then does not tell.
            if (!handleEvents() && !waitForMore())
                return;
        }
    }

private:
    enum Atom {
        clipboard,
        targets,
        timestamp,
        multiple,
        atomPair,
        incr,
        utf8String,
        plainText,
        textPlain,
        textPlainUTF8,
        clock,
        atomCount
    };

    /// What is still to be sent to one requestor, piece by piece, each when it has taken the one before.
    struct Transfer {
        xcb_window_t requestor;
        xcb_atom_t property;
        xcb_atom_t type;
        std::string data;
        std::size_t sent = 0;
    };

    xcb_atom_t atom(Atom which) const { return atoms[which]; }

    bool internAtoms()
    {
        static constexpr std::array<std::string_view, atomCount> names{"CLIPBOARD", "TARGETS", "TIMESTAMP", "MULTIPLE",
            "ATOM_PAIR", "INCR", "UTF8_STRING", "TEXT", "text/plain", "text/plain;charset=utf-8", "_KORVANE_CLOCK"};
        std::array<xcb_intern_atom_cookie_t, atomCount> cookies{};
        for (std::size_t i = 0; i < atomCount; ++i)
            cookies[i] = ::xcb_intern_atom(connection, 0, static_cast<std::uint16_t>(names[i].size()), names[i].data());
        for (std::size_t i = 0; i < atomCount; ++i) {
            const Owned<xcb_intern_atom_reply_t> reply(::xcb_intern_atom_reply(connection, cookies[i], nullptr));
            if (!reply)
                return false;
            atoms[i] = reply->atom;
        }
        return true;
    }

    /// The server's time, which comes with the notice that a property of the own window has changed.
    std::optional<xcb_timestamp_t> serverTime()
    {
        ::xcb_change_property(connection, XCB_PROP_MODE_REPLACE, window, atom(clock), XCB_ATOM_STRING, 8, 0, nullptr);
        ::xcb_flush(connection);
        while (const Owned<xcb_generic_event_t> event{::xcb_wait_for_event(connection)}) {
            if ((event->response_type & 0x7F) == XCB_PROPERTY_NOTIFY)
                return reinterpret_cast<const xcb_property_notify_event_t &>(*event).time;
        }
        return std::nullopt;
    }

    /// False when there was none.
    bool handleEvents()
    {
        bool any = false;
        while (const Owned<xcb_generic_event_t> event{::xcb_poll_for_event(connection)}) {
            handle(*event);
            any = true;
        }
        return any;
    }

    /// False when the display is gone.
    bool waitForMore()
    {
        pollfd ready{::xcb_get_file_descriptor(connection), POLLIN, 0};
        ::poll(&ready, 1, replaced ? 500 : -1);
        return !::xcb_connection_has_error(connection);
    }

    void handle(const xcb_generic_event_t &event)
    {
        switch (event.response_type & 0x7F) {
        case XCB_SELECTION_REQUEST: answer(reinterpret_cast<const xcb_selection_request_event_t &>(event)); break;
        case XCB_SELECTION_CLEAR: release(); break;
        case XCB_PROPERTY_NOTIFY: propertyChanged(reinterpret_cast<const xcb_property_notify_event_t &>(event)); break;
        case XCB_DESTROY_NOTIFY: forget(reinterpret_cast<const xcb_destroy_notify_event_t &>(event).window); break;
        default: break; // an error too: a requestor that went away
        }
    }

    void release()
    {
        replaced = true;
        farewell = SteadyClock::now() + farewellLimit;
    }

    void forget(xcb_window_t requestor)
    {
        transfers.remove_if([requestor](const Transfer &one) { return one.requestor == requestor; });
    }

    void answer(const xcb_selection_request_event_t &request)
    {
        // Clients of before the present rules name no property and mean the target's name.
        const xcb_atom_t property = request.property == XCB_ATOM_NONE ? request.target : request.property;
        const bool current = request.time == XCB_CURRENT_TIME || request.time >= taken;
        const bool known = current && !replaced
            && (request.target == atom(multiple) ? convertSeveral(request.requestor, property)
                                                 : convert(request.requestor, request.target, property));
        xcb_selection_notify_event_t notice{};
        notice.response_type = XCB_SELECTION_NOTIFY;
        notice.time = request.time;
        notice.requestor = request.requestor;
        notice.selection = request.selection;
        notice.target = request.target;
        notice.property = known ? property : static_cast<xcb_atom_t>(XCB_ATOM_NONE);
        // The protocol's events are 32 bytes, whatever their own part.
        std::array<char, 32> bytes{};
        std::copy_n(reinterpret_cast<const char *>(&notice), sizeof notice, bytes.begin());
        ::xcb_send_event(connection, 0, request.requestor, XCB_EVENT_MASK_NO_EVENT, bytes.data());
    }

    /// Writes the text, as `target` wants it, to the requestor's property.
    bool convert(xcb_window_t requestor, xcb_atom_t target, xcb_atom_t property)
    {
        if (target == atom(targets)) {
            const std::array<xcb_atom_t, 8> offered{atom(targets), atom(timestamp), atom(multiple), atom(utf8String),
                XCB_ATOM_STRING, atom(plainText), atom(textPlainUTF8), atom(textPlain)};
            set(requestor, property, XCB_ATOM_ATOM, 32, offered.size(), offered.data());
        } else if (target == atom(timestamp)) {
            set(requestor, property, XCB_ATOM_INTEGER, 32, 1, &taken);
        } else if (target == XCB_ATOM_STRING) {
            send(requestor, property, XCB_ATOM_STRING, latin1(text));
        } else if (target == atom(plainText)) {
            send(requestor, property, atom(utf8String), text);
        } else if (target == atom(utf8String) || target == atom(textPlainUTF8) || target == atom(textPlain)) {
            send(requestor, property, target, text);
        } else {
            return false;
        }
        return true;
    }

    /// The property holds pairs of target and property; the property of what cannot be had becomes nothing.
    bool convertSeveral(xcb_window_t requestor, xcb_atom_t property)
    {
        constexpr std::uint32_t words = 256;
        const Owned<xcb_get_property_reply_t> reply(::xcb_get_property_reply(
            connection, ::xcb_get_property(connection, 0, requestor, property, atom(atomPair), 0, words), nullptr));
        if (!reply || reply->format != 32)
            return false;
        const auto *const first = static_cast<const xcb_atom_t *>(::xcb_get_property_value(reply.get()));
        std::vector<xcb_atom_t> pairs(first, first + reply->value_len);
        for (std::size_t i = 0; i + 1 < pairs.size(); i += 2) {
            if (pairs[i] == atom(multiple) || !convert(requestor, pairs[i], pairs[i + 1]))
                pairs[i + 1] = XCB_ATOM_NONE;
        }
        set(requestor, property, atom(atomPair), 32, pairs.size(), pairs.data());
        return true;
    }

    void set(
        xcb_window_t requestor, xcb_atom_t property, xcb_atom_t type, std::uint8_t format, std::size_t count, const void *data)
    {
        ::xcb_change_property(
            connection, XCB_PROP_MODE_REPLACE, requestor, property, type, format, static_cast<std::uint32_t>(count), data);
    }

    /// The most bytes that one request carries, with room for its own head.
    std::size_t pieceLimit() const
    {
        const std::size_t most = std::size_t{::xcb_get_maximum_request_length(connection)} * 4 - 256;
        return std::min<std::size_t>(most, 1U << 18);
    }

    /// At once, or announced by its size and then piece by piece.
    void send(xcb_window_t requestor, xcb_atom_t property, xcb_atom_t type, const std::string &data)
    {
        if (data.size() <= pieceLimit()) {
            set(requestor, property, type, 8, data.size(), data.data());
            return;
        }
        const std::uint32_t events = XCB_EVENT_MASK_PROPERTY_CHANGE | XCB_EVENT_MASK_STRUCTURE_NOTIFY;
        ::xcb_change_window_attributes(connection, requestor, XCB_CW_EVENT_MASK, &events);
        const auto size = static_cast<std::uint32_t>(data.size());
        set(requestor, property, atom(incr), 32, 1, &size);
        transfers.push_back(Transfer{requestor, property, type, data});
    }

    /// A requestor deletes the property when it has read it; an empty piece is the last.
    void propertyChanged(const xcb_property_notify_event_t &event)
    {
        if (event.state != XCB_PROPERTY_DELETE)
            return;
        const auto transfer = std::ranges::find_if(
            transfers, [&](const Transfer &one) { return one.requestor == event.window && one.property == event.atom; });
        if (transfer == transfers.end())
            return;
        const std::size_t piece = std::min(pieceLimit(), transfer->data.size() - transfer->sent);
        set(transfer->requestor, transfer->property, transfer->type, 8, piece, transfer->data.data() + transfer->sent);
        transfer->sent += piece;
        if (piece == 0)
            transfers.erase(transfer);
    }

    xcb_connection_t *const connection;
    const std::string text;
    std::array<xcb_atom_t, atomCount> atoms{};
    xcb_window_t window = XCB_WINDOW_NONE;
    xcb_timestamp_t taken = XCB_CURRENT_TIME;
    std::list<Transfer> transfers;
    bool replaced = false;
    SteadyClock::time_point farewell;
};

/// Gives back everything of the program that called: its descriptors, its signals, its session. The pipe to it
/// becomes descriptor 3. What waits for the program's own locks or terminal must not find this process there.
void leaveTheProgram(int report)
{
    ::setsid();
    ::dup2(report, 3); // its own number or not, it is the one kept
    const int nothing = ::open("/dev/null", O_RDWR);
    for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO})
        ::dup2(nothing, standard);
    ::close_range(4, ~0U, 0);
    for (int signal = 1; signal < NSIG; ++signal)
        ::signal(signal, signal == SIGPIPE ? SIG_IGN : SIG_DFL);
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    if (::chdir("/") != 0)
        ::_exit(1);
}

[[noreturn]] void ownClipboard(int report, const std::string &display, const std::string &text)
{
    leaveTheProgram(report);
    Owner owner(display, text);
    if (!owner.take())
        ::_exit(1);
    const char owned = 1;
    const bool told = ::write(3, &owned, 1) == 1;
    ::close(3);
    if (told)
        owner.serve();
    ::_exit(0);
}

/// Whether the process at the other end says before the deadline that it owns the clipboard.
bool waitForReport(const Descriptor &report)
{
    const auto deadline = SteadyClock::now() + ownershipLimit;
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - SteadyClock::now());
        pollfd ready{report.get(), POLLIN, 0};
        const int count = ::poll(&ready, 1, std::max(0, static_cast<int>(left.count())));
        if (count < 0 && errno == EINTR)
            continue;
        char owned = 0;
        return count > 0 && ::read(report.get(), &owned, 1) == 1;
    }
}

bool startOwner(const std::string &display, const std::string &text)
{
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0)
        return false;
    const Descriptor report(ends[0]);
    Descriptor told(ends[1]);
    const pid_t child = ::fork();
    if (child == 0) {
        // Its own child has no parent here, so nobody has to wait for it.
        if (::fork() == 0)
            ownClipboard(told.get(), display, text);
        ::_exit(0);
    }
    told.reset();
    if (child < 0)
        return false;
    while (::waitpid(child, nullptr, 0) < 0 && errno == EINTR) { }
    return waitForReport(report);
}

} // namespace

Task<bool> XcbPasteboard::setText(std::string text)
{
    if (display.empty() || text.size() > textLimit)
        co_return false;
    auto work = [display = display, text = std::move(text)](std::stop_token) { return startOwner(display, text); };
    co_return co_await actor.run(std::move(work));
}

} // namespace korvane
