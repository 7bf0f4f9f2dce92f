#include "Vorrel/Views/X11Window.h"

#include "Vorrel/Platform/Linux/Xkb.h"

#include <QGuiApplication>
#include <QScreen>
#include <QSocketNotifier>
#include <QWidget>
#include <QWindow>

#include <xcb/shape.h>
#include <xcb/xcb.h>
#include <xcb/xfixes.h>
#include <xcb/xinput.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <memory>
#include <string>

namespace korvane::x11 {

namespace {

template <class T> struct Free {
    void operator()(T *reply) const { std::free(reply); }
};
template <class T> using Reply = std::unique_ptr<T, Free<T>>;

xcb_connection_t *connection()
{
    const auto *native = qApp ? qApp->nativeInterface<QNativeInterface::QX11Application>() : nullptr;
    return native ? native->connection() : nullptr;
}

xcb_window_t root(xcb_connection_t *x) { return xcb_setup_roots_iterator(xcb_get_setup(x)).data->root; }

xcb_atom_t atom(xcb_connection_t *x, const std::string &name)
{
    const Reply<xcb_intern_atom_reply_t> reply(
        xcb_intern_atom_reply(x, xcb_intern_atom(x, 0, std::uint16_t(name.size()), name.c_str()), nullptr));
    return reply ? reply->atom : xcb_atom_t(XCB_ATOM_NONE);
}

xcb_window_t idOf(const QWidget &window) { return xcb_window_t(window.internalWinId()); }

void setCardinals(xcb_connection_t *x, xcb_window_t window, xcb_atom_t name, const std::uint32_t *values, std::uint32_t count)
{
    xcb_change_property(x, XCB_PROP_MODE_REPLACE, window, name, XCB_ATOM_CARDINAL, 32, count, values);
}

/// A connection of its own, because the toolkit's takes all events of its connection.
class Watch {
public:
    Watch() : x(xcb_connect(nullptr, nullptr))
    {
        if (xcb_connection_has_error(x))
            return;
        window = xcb_generate_id(x);
        const std::uint32_t events = XCB_EVENT_MASK_PROPERTY_CHANGE;
        xcb_create_window(x, XCB_COPY_FROM_PARENT, window, root(x), -1, -1, 1, 1, 0, XCB_WINDOW_CLASS_INPUT_ONLY,
            XCB_COPY_FROM_PARENT, XCB_CW_EVENT_MASK, &events);
    }
    ~Watch() { xcb_disconnect(x); }
    Watch(const Watch &) = delete;
    Watch &operator=(const Watch &) = delete;

    /// Every change of a property is stamped; an empty change is enough.
    std::uint32_t time() const
    {
        if (!window)
            return 0;
        xcb_change_property(x, XCB_PROP_MODE_APPEND, window, XCB_ATOM_WM_NAME, XCB_ATOM_STRING, 8, 0, "");
        xcb_flush(x);
        while (const Reply<xcb_generic_event_t> event{xcb_wait_for_event(x)})
            if ((event->response_type & 0x7f) == XCB_PROPERTY_NOTIFY)
                return reinterpret_cast<const xcb_property_notify_event_t *>(event.get())->time;
        return 0;
    }

private:
    xcb_connection_t *x;
    xcb_window_t window = 0;
};

} // namespace

bool compositorRuns()
{
    xcb_connection_t *x = connection();
    if (!x)
        return true; // other platforms always compose
    static const xcb_atom_t manager = atom(x, "_NET_WM_CM_S0");
    const Reply<xcb_get_selection_owner_reply_t> reply(
        xcb_get_selection_owner_reply(x, xcb_get_selection_owner(x, manager), nullptr));
    return reply && reply->owner != XCB_WINDOW_NONE;
}

std::optional<QPoint> positionOf(const QWidget &window)
{
    xcb_connection_t *x = connection();
    if (!x || !idOf(window))
        return std::nullopt;
    const Reply<xcb_translate_coordinates_reply_t> reply(
        xcb_translate_coordinates_reply(x, xcb_translate_coordinates(x, idOf(window), root(x), 0, 0), nullptr));
    if (!reply)
        return std::nullopt;
    // A screen's corner keeps its place when the toolkit scales; what lies on it moves towards the corner.
    const QPoint native(reply->dst_x, reply->dst_y);
    const QScreen *screen = window.screen();
    const QPoint corner = screen ? screen->geometry().topLeft() : QPoint();
    return corner + (QPointF(native - corner) / window.devicePixelRatio()).toPoint();
}

std::uint32_t serverTime()
{
    if (!connection())
        return 0;
    static const Watch watch;
    return watch.time();
}

std::string launchToken()
{
    static int launches = 0;
    const std::uint32_t time = serverTime();
    if (!time)
        return {};
    return "korvane-" + std::to_string(QCoreApplication::applicationPid()) + "-" + std::to_string(++launches) + "_TIME"
        + std::to_string(time);
}

void setUserTime(const QWidget &window, std::uint32_t time)
{
    xcb_connection_t *x = connection();
    if (!x || !idOf(window) || !time) // a time of 0 would ask not to get the keyboard
        return;
    static const xcb_atom_t userTime = atom(x, "_NET_WM_USER_TIME");
    setCardinals(x, idOf(window), userTime, &time, 1);
}

bool activate(const QWidget &window, std::uint32_t time)
{
    xcb_connection_t *x = connection();
    if (!x || !idOf(window))
        return false;
    static const xcb_atom_t activeWindow = atom(x, "_NET_ACTIVE_WINDOW");
    xcb_client_message_event_t message{};
    message.response_type = XCB_CLIENT_MESSAGE;
    message.format = 32;
    message.window = idOf(window);
    message.type = activeWindow;
    message.data.data32[0] = 2; // on behalf of the user
    message.data.data32[1] = time;
    xcb_send_event(x, 0, root(x), XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY | XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT,
        reinterpret_cast<const char *>(&message));
    xcb_flush(x);
    return true;
}

void showInFront(QWidget &window)
{
    const std::uint32_t time = serverTime();
    window.winId();
    setUserTime(window, time);
    window.show();
    window.raise();
    window.activateWindow();
    activate(window, time);
}

/// Whether the window is a program's, or within one: window managers mark those that they manage.
static bool isManaged(xcb_connection_t *x, xcb_window_t window)
{
    static const xcb_atom_t state = atom(x, "WM_STATE");
    constexpr int deepest = 8;
    for (int level = 0; level < deepest && window != XCB_WINDOW_NONE && window != root(x); level++) {
        const Reply<xcb_get_property_reply_t> mark(
            xcb_get_property_reply(x, xcb_get_property(x, 0, window, state, XCB_GET_PROPERTY_TYPE_ANY, 0, 1), nullptr));
        if (mark && mark->type != XCB_ATOM_NONE)
            return true;
        const Reply<xcb_query_tree_reply_t> tree(xcb_query_tree_reply(x, xcb_query_tree(x, window), nullptr));
        window = tree ? tree->parent : XCB_WINDOW_NONE;
    }
    return false;
}

Keyboard keyboardOf(const QWidget &window)
{
    xcb_connection_t *x = connection();
    if (!x)
        return Keyboard::Other;
    const Reply<xcb_get_input_focus_reply_t> focus(xcb_get_input_focus_reply(x, xcb_get_input_focus(x), nullptr));
    if (!focus)
        return Keyboard::Other;
    if (focus->focus == idOf(window))
        return Keyboard::Ours;
    constexpr xcb_window_t pointerRoot = 1; // stands for whatever is under the mouse
    return focus->focus > pointerRoot && isManaged(x, focus->focus) ? Keyboard::Other : Keyboard::Nobody;
}

std::optional<std::uint32_t> plainKeysym(std::uint32_t keyCode, std::uint32_t modifiers)
{
    xcb_connection_t *x = connection();
    const auto code = xcb_keycode_t(keyCode);
    if (!x || code != keyCode)
        return std::nullopt;
    const auto cookie =
        xcb_xkb_get_map(x, XCB_XKB_ID_USE_CORE_KBD, 0, XCB_XKB_MAP_PART_KEY_SYMS, 0, 0, code, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    const Reply<xcb_xkb_get_map_reply_t> reply(xcb_xkb_get_map_reply(x, cookie, nullptr));
    if (!reply || reply->nKeySyms != 1)
        return std::nullopt;
    // Only the keysyms of one key were asked for, so they are all that follows.
    const auto *key = static_cast<const xcb_xkb_key_sym_map_t *>(xcb_xkb_get_map_map(reply.get()));
    constexpr std::uint32_t countOfLayouts = 0x0f, layoutBits = 0x6000, layoutShift = 13;
    const std::uint32_t layouts = key->groupInfo & countOfLayouts;
    if (layouts == 0 || key->nSyms < layouts * key->width)
        return std::nullopt;
    const std::uint32_t layout = ((modifiers & layoutBits) >> layoutShift) % layouts; // a key may have fewer than others
    return xcb_xkb_key_sym_map_syms(key)[layout * key->width];
}

void setSolidPart(const QWidget &window, const QRect &part)
{
    xcb_connection_t *x = connection();
    if (!x || !idOf(window))
        return;
    static const xcb_atom_t frameExtents = atom(x, "_GTK_FRAME_EXTENTS");
    static const bool fixes = [x] {
        const Reply<xcb_xfixes_query_version_reply_t> reply(
            xcb_xfixes_query_version_reply(x, xcb_xfixes_query_version(x, 5, 0), nullptr));
        return reply != nullptr;
    }();
    const qreal ratio = window.devicePixelRatio();
    const auto pixels = [ratio](int units) { return qRound(units * ratio); };
    if (part.isEmpty()) {
        xcb_delete_property(x, idOf(window), frameExtents);
    } else {
        const std::array<std::uint32_t, 4> extents{std::uint32_t(pixels(part.left())),
            std::uint32_t(pixels(window.width() - part.left() - part.width())), std::uint32_t(pixels(part.top())),
            std::uint32_t(pixels(window.height() - part.top() - part.height()))};
        setCardinals(x, idOf(window), frameExtents, extents.data(), extents.size());
    }
    if (fixes) {
        xcb_xfixes_region_t region = XCB_NONE;
        if (!part.isEmpty()) {
            region = xcb_generate_id(x);
            const xcb_rectangle_t area{std::int16_t(pixels(part.left())), std::int16_t(pixels(part.top())),
                std::uint16_t(pixels(part.width())), std::uint16_t(pixels(part.height()))};
            xcb_xfixes_create_region(x, region, 1, &area);
        }
        xcb_xfixes_set_window_shape_region(x, idOf(window), XCB_SHAPE_SK_INPUT, 0, 0, region);
        if (region)
            xcb_xfixes_destroy_region(x, region);
    }
    xcb_flush(x);
}

// FocusWatch

FocusWatch::FocusWatch(QWidget &window, std::function<void()> gained) : window(window), gained(std::move(gained))
{
    qApp->installNativeEventFilter(this);
}

FocusWatch::~FocusWatch()
{
    if (qApp)
        qApp->removeNativeEventFilter(this);
}

bool FocusWatch::nativeEventFilter(const QByteArray &type, void *message, qintptr *)
{
    if (type != "xcb_generic_event_t")
        return false;
    const auto *event = static_cast<const xcb_generic_event_t *>(message);
    if ((event->response_type & 0x7f) != XCB_FOCUS_IN)
        return false;
    const auto *focus = reinterpret_cast<const xcb_focus_in_event_t *>(event);
    if (focus->event == idOf(window) && focus->detail != XCB_NOTIFY_DETAIL_POINTER)
        QMetaObject::invokeMethod(&window, gained, Qt::QueuedConnection); // the toolkit looks at the event first
    return false;
}

// OwnConnection

class OwnConnection {
public:
    using Handle = std::function<void(const xcb_generic_event_t &)>;

    /// Nothing where there is no X server. `handle` gets every event.
    static std::unique_ptr<OwnConnection> open(Handle handle)
    {
        if (!connection())
            return nullptr;
        auto made = std::make_unique<OwnConnection>(std::move(handle));
        return xcb_connection_has_error(made->x) ? nullptr : std::move(made);
    }

    explicit OwnConnection(Handle handle) : x(xcb_connect(nullptr, nullptr)), handle(std::move(handle))
    {
        if (xcb_connection_has_error(x))
            return;
        notifier = std::make_unique<QSocketNotifier>(xcb_get_file_descriptor(x), QSocketNotifier::Read);
        QObject::connect(notifier.get(), &QSocketNotifier::activated, [this] { readEvents(); });
    }
    ~OwnConnection() { xcb_disconnect(x); }
    OwnConnection(const OwnConnection &) = delete;
    OwnConnection &operator=(const OwnConnection &) = delete;

    xcb_connection_t *const x;

private:
    // Until there is none left: a reply that `handle` waits for brings further events along, and no more wake-up for them.
    void readEvents()
    {
        while (const Reply<xcb_generic_event_t> event{xcb_poll_for_event(x)})
            handle(*event);
        if (xcb_connection_has_error(x))
            notifier->setEnabled(false);
    }

    Handle handle;
    std::unique_ptr<QSocketNotifier> notifier;
};

// SelectionWatch

SelectionWatch::SelectionWatch(const char *selection, std::function<void()> taken)
{
    auto made = OwnConnection::open([this, taken = std::move(taken)](const xcb_generic_event_t &) {
        if (hasOwner())
            taken();
    });
    if (!made)
        return;
    xcb_connection_t *x = made->x;
    const Reply<xcb_xfixes_query_version_reply_t> version(
        xcb_xfixes_query_version_reply(x, xcb_xfixes_query_version(x, 5, 0), nullptr));
    if (!version)
        return;
    connection = std::move(made);
    name = atom(x, selection);
    xcb_xfixes_select_selection_input(x, root(x), name, XCB_XFIXES_SELECTION_EVENT_MASK_SET_SELECTION_OWNER);
    xcb_flush(x);
}

SelectionWatch::~SelectionWatch() = default;

bool SelectionWatch::hasOwner() const
{
    if (!connection)
        return false;
    const Reply<xcb_get_selection_owner_reply_t> reply(
        xcb_get_selection_owner_reply(connection->x, xcb_get_selection_owner(connection->x, name), nullptr));
    return reply && reply->owner != XCB_WINDOW_NONE;
}

// PressWatch

static bool isOurs(xcb_window_t window)
{
    return std::ranges::any_of(
        QGuiApplication::allWindows(), [window](const QWindow *own) { return own->handle() && own->winId() == window; });
}

/// Whether the mouse is over a window of this program: window managers put windows into others.
static bool mouseIsOverOurs(xcb_connection_t *x)
{
    constexpr int deepest = 8;
    xcb_window_t window = root(x);
    for (int level = 0; level < deepest; level++) {
        const Reply<xcb_query_pointer_reply_t> mouse(xcb_query_pointer_reply(x, xcb_query_pointer(x, window), nullptr));
        if (!mouse || mouse->child == XCB_WINDOW_NONE)
            return false;
        if (isOurs(mouse->child))
            return true;
        window = mouse->child;
    }
    return false;
}

/// The extension's number; nothing when the server does not know the version that reports presses during grabs too.
static std::optional<std::uint8_t> inputExtension(xcb_connection_t *x)
{
    const xcb_query_extension_reply_t *extension = xcb_get_extension_data(x, &xcb_input_id);
    if (!extension || !extension->present)
        return std::nullopt;
    const Reply<xcb_input_xi_query_version_reply_t> version(
        xcb_input_xi_query_version_reply(x, xcb_input_xi_query_version(x, 2, 2), nullptr));
    const bool enough = version && (version->major_version > 2 || (version->major_version == 2 && version->minor_version >= 1));
    return enough ? std::optional(extension->major_opcode) : std::nullopt;
}

/// The raw button event in `event`, if it is a press of the left or the right button.
static const xcb_input_raw_button_press_event_t *clickIn(const xcb_generic_event_t &event, std::uint8_t extension)
{
    const auto &generic = reinterpret_cast<const xcb_ge_generic_event_t &>(event);
    if ((event.response_type & 0x7f) != XCB_GE_GENERIC || generic.extension != extension
        || generic.event_type != XCB_INPUT_RAW_BUTTON_PRESS)
        return nullptr;
    const auto *press = reinterpret_cast<const xcb_input_raw_button_press_event_t *>(&event);
    constexpr std::uint32_t left = 1, right = 3;
    return press->detail == left || press->detail == right ? press : nullptr;
}

PressWatch::PressWatch(std::function<void(std::uint32_t, bool)> pressed) : pressed(std::move(pressed)) { }

PressWatch::~PressWatch() = default;

void PressWatch::set(bool on)
{
    if (on && !connection) {
        connection = OwnConnection::open([this](const xcb_generic_event_t &event) {
            if (const auto *press = watching ? clickIn(event, *extension) : nullptr)
                pressed(press->time, mouseIsOverOurs(connection->x));
        });
        if (connection)
            extension = inputExtension(connection->x);
    }
    if (!extension || on == watching)
        return;
    watching = on;
    struct {
        xcb_input_event_mask_t head;
        std::uint32_t events;
    } const mask{{XCB_INPUT_DEVICE_ALL_MASTER, 1}, on ? XCB_INPUT_XI_EVENT_MASK_RAW_BUTTON_PRESS : 0u};
    xcb_input_xi_select_events(connection->x, root(connection->x), 1, &mask.head);
    xcb_flush(connection->x);
}

} // namespace korvane::x11
