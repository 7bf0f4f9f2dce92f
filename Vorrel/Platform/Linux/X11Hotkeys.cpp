#include "Vorrel/Platform/Linux/X11Hotkeys.h"

#include "Support/Descriptor.h"
#include "Vorrel/Platform/Linux/X11Keymap.h"
#include "Vorrel/Platform/Linux/Xkb.h"

#include <fcntl.h>
#include <map>
#include <set>
#include <xcb/xcb.h>

namespace korvane {

namespace {

using Reason = HotkeyRegistrationError::Reason;

constexpr std::int32_t badValue = 2; // the X error for a key that the keyboard does not have
constexpr std::uint8_t eventKind = 0x7f; // without the bit of events sent by programs

/// A key with the exact modifiers that must be held.
struct Combination {
    xcb_keycode_t key;
    std::uint16_t modifiers;

    auto operator<=>(const Combination &) const = default;
};
using Combinations = std::set<Combination>;

} // namespace

/// The connection: what is grabbed on it and for whom, and what the server says.
class X11Hotkeys::Display : public std::enable_shared_from_this<Display> {
public:
    Display(const Executor &mainThread, Clock &clock, const std::string &name) :
        mainThread(mainThread), clock(clock), connection(::xcb_connect(name.c_str(), nullptr))
    {
    }
    ~Display() { ::xcb_disconnect(connection); }
    Display(const Display &) = delete;
    Display &operator=(const Display &) = delete;

    bool begin(Handlers given)
    {
        if (::xcb_connection_has_error(connection) || !useKeyboardExtension())
            return false;
        socket.reset(::fcntl(::xcb_get_file_descriptor(connection), F_DUPFD_CLOEXEC, 0));
        root = ::xcb_setup_roots_iterator(::xcb_get_setup(connection)).data->root;
        handlers = std::move(given);
        return bool(socket);
    }

    /// Tells nobody any more, and gives everything back.
    void end()
    {
        handlers = {};
        waiting.cancel();
        for (const auto &[combination, users] : grabs)
            ungrab(combination);
        grabs.clear();
        reservations.clear();
        ::xcb_allow_events(connection, XCB_ALLOW_ASYNC_KEYBOARD, XCB_CURRENT_TIME);
        ::xcb_flush(connection);
    }

    /// A number for `release`.
    int reserve(const HotkeyConfiguration &configuration)
    {
        const auto byKey = combinationsFor(configuration);
        if (broken())
            throw HotkeyRegistrationError(Reason::unavailable);
        if (byKey.empty())
            throw HotkeyRegistrationError(Reason::rejected, badValue);
        Combinations all;
        for (const auto &[key, combinations] : byKey)
            all.insert(combinations.begin(), combinations.end());
        const int error = take(all);
        if (broken())
            throw HotkeyRegistrationError(Reason::unavailable);
        if (error)
            throw HotkeyRegistrationError(Reason::rejected, error);
        reservations[++lastReservation] = {configuration, std::move(all)};
        return lastReservation;
    }

    void release(int number)
    {
        const auto found = reservations.find(number);
        if (found == reservations.end())
            return;
        giveBack(found->second.held);
        reservations.erase(found);
        letKeysThrough();
        ::xcb_flush(connection);
    }

    std::uint32_t claimKeys()
    {
        if (!answering)
            return 0;
        claimed = true;
        Task<void> task = loosePatience(clock, weak_from_this());
        waiting = spawn(mainThread, std::move(task));
        return answering;
    }

    void letKeysThrough()
    {
        waiting.cancel();
        if (std::exchange(claimed, false) && !answering)
            goOn(XCB_ALLOW_SYNC_KEYBOARD);
    }

    /// Takes what has come from the server. False when nothing will come any more.
    bool pump()
    {
        const auto self = shared_from_this(); // a handler may let go of this
        handleAll();
        while (std::exchange(keysChanged, false)) {
            follow();
            handleAll(); // what its questions brought along
        }
        if (broken())
            fail();
        return !failed;
    }

    const Descriptor &readable() const { return socket; }

private:
    struct Reservation {
        HotkeyConfiguration configuration;
        Combinations held;
    };

    bool broken() const { return ::xcb_connection_has_error(connection) != 0; }

    /// A held key then repeats as presses alone, and changes of the keyboard are told.
    bool useKeyboardExtension()
    {
        const auto *extension = ::xcb_get_extension_data(connection, &xcb_xkb_id);
        const XcbReply<xcb_xkb_use_extension_reply_t> version(
            ::xcb_xkb_use_extension_reply(connection, ::xcb_xkb_use_extension(connection, 1, 0), nullptr));
        if (!extension || !extension->present || !version || !version->supported)
            return false;
        keyboardEvent = extension->first_event;
        constexpr std::uint32_t repeat = XCB_XKB_PER_CLIENT_FLAG_DETECTABLE_AUTO_REPEAT;
        const XcbReply<xcb_xkb_per_client_flags_reply_t> flags(::xcb_xkb_per_client_flags_reply(
            connection, ::xcb_xkb_per_client_flags(connection, XCB_XKB_ID_USE_CORE_KBD, repeat, repeat, 0, 0, 0), nullptr));
        constexpr std::uint16_t events = XCB_XKB_EVENT_TYPE_NEW_KEYBOARD_NOTIFY | XCB_XKB_EVENT_TYPE_MAP_NOTIFY;
        constexpr std::uint16_t everyPart = 0xff;
        ::xcb_xkb_select_events(connection, XCB_XKB_ID_USE_CORE_KBD, events, 0, events, everyPart, everyPart, nullptr);
        return flags && readKeymap();
    }

    bool readKeymap()
    {
        auto map = X11Keymap::read(connection);
        if (map)
            keymap = std::move(*map);
        return map.has_value();
    }

    /// What must be grabbed, for each key that does for the configuration's.
    std::map<xcb_keycode_t, Combinations> combinationsFor(const HotkeyConfiguration &configuration) const
    {
        std::map<xcb_keycode_t, Combinations> all;
        const VirtualKey *const key = virtualKeyOfCode(configuration.keyCode);
        if (!key)
            return all;
        const std::uint16_t modifiers = keymap.modifiersFor(configuration.modifiers);
        const std::string label = configuration.keyLabel.value_or("");
        for (const xcb_keycode_t code : keymap.keysFor(*key, label))
            for (const std::uint16_t locks : keymap.lockVariants(modifiers))
                all[code].insert({code, std::uint16_t(modifiers | locks)});
        return all;
    }

    /// Grabs what nobody here has yet, for one more user. All or, with the server's error, nothing.
    int take(const Combinations &wanted)
    {
        std::map<Combination, xcb_void_cookie_t> asked;
        for (const Combination &one : wanted)
            if (!grabs.contains(one))
                asked[one] =
                    ::xcb_grab_key_checked(connection, 0, root, one.modifiers, one.key, XCB_GRAB_MODE_ASYNC, XCB_GRAB_MODE_SYNC);
        int error = 0;
        Combinations granted;
        for (const auto &[one, cookie] : asked) {
            if (const XcbReply<xcb_generic_error_t> refusal{::xcb_request_check(connection, cookie)})
                error = refusal->error_code;
            else
                granted.insert(one);
        }
        lookSoon();
        if (error || broken()) {
            for (const Combination &one : granted)
                ungrab(one);
            ::xcb_flush(connection);
            return error;
        }
        for (const Combination &one : wanted)
            ++grabs[one];
        return 0;
    }

    void giveBack(const Combinations &held)
    {
        for (const Combination &one : held)
            if (const auto grab = grabs.find(one); grab != grabs.end() && --grab->second == 0) {
                ungrab(one);
                grabs.erase(grab);
            }
    }

    void ungrab(const Combination &one) { ::xcb_ungrab_key(connection, one.key, root, one.modifiers); }

    /// An answer that was waited for may have brought events along, and the socket does not tell of those.
    void lookSoon()
    {
        runLater(mainThread, [weak = weak_from_this()] {
            if (const auto self = weak.lock())
                self->pump();
        });
    }

    void handleAll()
    {
        while (const XcbReply<xcb_generic_event_t> event{::xcb_poll_for_event(connection)})
            handle(*event);
    }

    void handle(const xcb_generic_event_t &event)
    {
        const std::uint8_t kind = event.response_type & eventKind;
        if (kind == XCB_KEY_PRESS)
            keyPressed(reinterpret_cast<const xcb_key_press_event_t &>(event));
        else if (kind == XCB_KEY_RELEASE)
            keyReleased(reinterpret_cast<const xcb_key_release_event_t &>(event));
        else if (kind == keyboardEvent || kind == XCB_MAPPING_NOTIFY)
            keysChanged = true;
    }

    // From a press to the key's release every key comes here, and the keyboard stands still after each until told to go on.

    void keyPressed(const xcb_key_press_event_t &event)
    {
        const bool repeat = down == event.detail;
        if (repeat || (down && keymap.isModifier(event.detail)))
            return goOn(XCB_ALLOW_SYNC_KEYBOARD);
        if (down) {
            // Typed while the shortcut was still held: it is meant for whoever has the keyboard.
            down.reset();
            return goOn(XCB_ALLOW_REPLAY_KEYBOARD);
        }
        down = event.detail;
        answering = event.time;
        if (const auto pressed = handlers.pressed)
            pressed();
        answering = 0;
        if (!claimed)
            goOn(XCB_ALLOW_SYNC_KEYBOARD);
    }

    void keyReleased(const xcb_key_release_event_t &event)
    {
        if (down == event.detail)
            down.reset();
        goOn(down ? XCB_ALLOW_SYNC_KEYBOARD : XCB_ALLOW_ASYNC_KEYBOARD);
    }

    void goOn(xcb_allow_t how)
    {
        ::xcb_allow_events(connection, std::uint8_t(how), XCB_CURRENT_TIME);
        ::xcb_flush(connection);
    }

    static Task<void> loosePatience(Clock &clock, std::weak_ptr<Display> display)
    {
        co_await clock.sleep(patience);
        if (const auto self = display.lock())
            self->letKeysThrough();
    }

    /// Grabs by the new keyboard what the old one had.
    void follow()
    {
        if (!readKeymap())
            return;
        std::vector<std::pair<HotkeyConfiguration, int>> losses;
        for (auto &[number, reservation] : reservations)
            if (const int error = move(reservation))
                losses.emplace_back(reservation.configuration, error);
        ::xcb_flush(connection);
        for (const auto &[lost, error] : losses)
            tellLost(lost, HotkeyRegistrationError(Reason::rejected, error));
    }

    /// An error when the new keyboard leaves no key to the reservation. One of several keys is enough.
    int move(Reservation &reservation)
    {
        int error = badValue;
        Combinations now;
        for (const auto &[key, combinations] : combinationsFor(reservation.configuration)) {
            if (const int refusal = take(combinations))
                error = refusal;
            else
                now.insert(combinations.begin(), combinations.end());
        }
        const bool had = !reservation.held.empty();
        giveBack(std::exchange(reservation.held, now));
        return had && now.empty() ? error : 0;
    }

    void fail()
    {
        if (std::exchange(failed, true))
            return;
        waiting.cancel();
        grabs.clear();
        for (const auto &[number, reservation] : std::exchange(reservations, {}))
            tellLost(reservation.configuration, HotkeyRegistrationError(Reason::unavailable));
    }

    void tellLost(const HotkeyConfiguration &which, const HotkeyRegistrationError &why) const
    {
        if (const auto lost = handlers.lost)
            lost(which, why);
    }

    const Executor mainThread;
    Clock &clock;
    xcb_connection_t *const connection;
    Descriptor socket; // the connection's, once more
    xcb_window_t root = XCB_NONE;
    std::uint8_t keyboardEvent = 0;
    Handlers handlers;
    X11Keymap keymap;
    bool keysChanged = false;
    bool failed = false;

    std::map<Combination, int> grabs; // with the number of reservations that use each
    std::map<int, Reservation> reservations;
    int lastReservation = 0;

    std::optional<xcb_keycode_t> down; // the shortcut's key while it is held
    xcb_timestamp_t answering = 0; // time of the press that is being told
    bool claimed = false; // keys wait for `letKeysThrough`
    TaskHandle waiting;
};

X11Hotkeys::X11Hotkeys(Executor mainThread, Clock &clock, std::string display) :
    mainThread(std::move(mainThread)), clock(clock), name(std::move(display))
{
}

X11Hotkeys::~X11Hotkeys() { remove(); }

bool X11Hotkeys::install(Handlers handlers)
{
    if (name.empty())
        return false;
    auto made = std::make_shared<Display>(mainThread, clock, name);
    if (!made->begin(std::move(handlers)))
        return false;
    display = std::move(made);
    Task<void> task = read(display);
    reading = spawn(mainThread, std::move(task));
    return true;
}

Task<void> X11Hotkeys::read(std::shared_ptr<Display> display)
{
    while (display->pump())
        co_await waitUntilReadable(display->readable());
}

void X11Hotkeys::remove()
{
    reading.cancel();
    if (const auto ending = std::exchange(display, nullptr))
        ending->end();
}

HotkeyLease X11Hotkeys::reserve(const HotkeyConfiguration &configuration)
{
    if (!display)
        throw HotkeyRegistrationError(Reason::unavailable);
    const int number = display->reserve(configuration);
    return HotkeyLease([weak = std::weak_ptr(display), number] {
        if (const auto held = weak.lock())
            held->release(number);
    });
}

std::uint32_t X11Hotkeys::claimKeys() { return display ? display->claimKeys() : 0; }

void X11Hotkeys::letKeysThrough()
{
    if (display)
        display->letKeysThrough();
}

} // namespace korvane
