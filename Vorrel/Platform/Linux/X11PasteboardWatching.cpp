#include "Vorrel/Platform/Linux/X11PasteboardWatching.h"

#include "Support/Descriptor.h"
#include "Vorrel/Platform/Linux/PasteboardForms.h"
#include "Vorrel/Platform/Linux/X11Keymap.h"
#include "Vorrel/Shell/AppLog.h"
#include "Vorrel/Shell/L10n.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <fcntl.h>
#include <list>
#include <map>
#include <set>
#include <xcb/xcb.h>
#include <xcb/xcbext.h>
#include <xcb/xfixes.h>

namespace korvane {

namespace {

constexpr std::uint8_t eventKind = 0x7f; // without the bit of events sent by programs
constexpr std::size_t longestList = 4096; // bytes of a list of forms
constexpr std::uint32_t pieceWords = 16 * 1024; // of a property at a time, in units of four bytes
constexpr std::size_t knownNames = 4096;

enum Name { clipboard, targets, incr, pasted, hint, activeWindow, nameCount };
constexpr std::array<std::string_view, nameCount> names{
    "CLIPBOARD", "TARGETS", "INCR", "_KORVANE_PASTED", pasteboardForms::hint, "_NET_ACTIVE_WINDOW"};

/// A form's content, as the owner gave it.
struct Content {
    enum Outcome { given, refused, tooLarge, unanswered } outcome = refused;
    std::uint8_t format = 0; ///< Bits of a unit.
    std::string bytes = {};

    template <class Unit> std::vector<Unit> units() const
    {
        std::vector<Unit> all(bytes.size() / sizeof(Unit));
        std::memcpy(all.data(), bytes.data(), all.size() * sizeof(Unit));
        return all;
    }
};

/// What is offered since one change, as far as it could be found out.
struct Offer {
    std::int64_t change = -1;
    std::vector<std::string> types = {}; ///< None when nobody told.
    bool concealed = false;
};

} // namespace

/// The connection. Questions wait here for what the server sends.
class X11PasteboardWatching::Display : public std::enable_shared_from_this<Display> {
public:
    Display(const Executor &mainThread, Clock &clock) : mainThread(mainThread), clock(clock) { }
    ~Display()
    {
        if (connection)
            ::xcb_disconnect(connection);
    }
    Display(const Display &) = delete;
    Display &operator=(const Display &) = delete;

    /// Blocks; on any thread, before anything else is asked. False without a server that tells of changes.
    bool connect(const std::string &name)
    {
        connection = ::xcb_connect(name.c_str(), nullptr);
        if (::xcb_connection_has_error(connection) || !readNames() || !useExtension())
            return false;
        socket.reset(::fcntl(::xcb_get_file_descriptor(connection), F_DUPFD_CLOEXEC, 0));
        root = ::xcb_setup_roots_iterator(::xcb_get_setup(connection)).data->root;
        constexpr std::uint32_t every = XCB_XFIXES_SELECTION_EVENT_MASK_SET_SELECTION_OWNER
            | XCB_XFIXES_SELECTION_EVENT_MASK_SELECTION_WINDOW_DESTROY | XCB_XFIXES_SELECTION_EVENT_MASK_SELECTION_CLIENT_CLOSE;
        const XcbReply<xcb_generic_error_t> refusal(::xcb_request_check(
            connection, ::xcb_xfixes_select_selection_input_checked(connection, root, atom(clipboard), every)));
        return socket && !refusal && !broken();
    }

    /// Takes what has come, and lets every question look whether it was for it. False when nothing will come any more.
    bool pump();
    /// Nobody listens any more.
    void end()
    {
        lost = [](const char *) {};
    }

    bool broken() const { return !connection || ::xcb_connection_has_error(connection) != 0; }
    const Descriptor &readable() const { return socket; }
    xcb_atom_t atom(Name which) const { return atoms[which]; }

    /// Sends what was asked. The sending may read as well, of which the socket then does not tell.
    void send()
    {
        ::xcb_flush(connection);
        runLater(mainThread, [weak = weak_from_this()] {
            if (const auto self = weak.lock())
                self->pump();
        });
    }

    void handleEvents()
    {
        while (const XcbReply<xcb_generic_event_t> event{::xcb_poll_for_event(connection)})
            handle(*event);
    }

    /// The owner may still write to the window of a question that was given up, and programs exist that do not survive its
    /// absence. So it stays until it was written to, or somebody else is the owner.
    void leaveOpen(xcb_window_t window) { late.insert(window); }

    const Executor mainThread;
    Clock &clock;
    std::function<void(const char *why)> lost = [](const char *) {};
    xcb_connection_t *connection = nullptr;
    xcb_window_t root = XCB_NONE;
    bool following = false;

    std::int64_t changes = 0;
    xcb_window_t owner = XCB_NONE;
    xcb_timestamp_t changedAt = XCB_CURRENT_TIME;
    Offer offer;
    std::list<Question *> questions;
    std::map<xcb_atom_t, std::string> typeNames;

private:
    bool readNames()
    {
        std::array<xcb_intern_atom_cookie_t, nameCount> cookies{};
        for (std::size_t i = 0; i < nameCount; ++i)
            cookies[i] = ::xcb_intern_atom(connection, 0, static_cast<std::uint16_t>(names[i].size()), names[i].data());
        bool all = true;
        for (std::size_t i = 0; i < nameCount; ++i) {
            const XcbReply<xcb_intern_atom_reply_t> reply(::xcb_intern_atom_reply(connection, cookies[i], nullptr));
            all = all && reply;
            atoms[i] = reply ? reply->atom : static_cast<xcb_atom_t>(XCB_ATOM_NONE);
        }
        return all;
    }

    bool useExtension()
    {
        const auto *extension = ::xcb_get_extension_data(connection, &xcb_xfixes_id);
        if (!extension || !extension->present)
            return false;
        changeEvent = extension->first_event + XCB_XFIXES_SELECTION_NOTIFY;
        const XcbReply<xcb_xfixes_query_version_reply_t> version(
            ::xcb_xfixes_query_version_reply(connection, ::xcb_xfixes_query_version(connection, 1, 0), nullptr));
        return version != nullptr;
    }

    void handle(const xcb_generic_event_t &event);

    void changed(const xcb_xfixes_selection_notify_event_t &event)
    {
        ++changes;
        owner = event.owner;
        changedAt = event.timestamp;
        offer = {};
        for (const xcb_window_t window : std::exchange(late, {}))
            ::xcb_destroy_window(connection, window);
        ::xcb_flush(connection);
    }

    void closeLate(xcb_window_t window)
    {
        if (late.erase(window) == 0)
            return;
        ::xcb_destroy_window(connection, window);
        ::xcb_flush(connection);
    }

    Descriptor socket; // the connection's, once more
    std::uint8_t changeEvent = 0;
    std::array<xcb_atom_t, nameCount> atoms{};
    std::set<xcb_window_t> late;
};

/// One question, from its asking to its answer or its deadline. Lives in the coroutine that asks.
class X11PasteboardWatching::Question {
public:
    explicit Question(std::shared_ptr<Display> given) :
        display(std::move(given)), place(display->questions.insert(display->questions.end(), this))
    {
        Task<void> task = expire(display->clock, alive);
        timer = spawn(display->mainThread, std::move(task));
    }
    ~Question()
    {
        display->questions.erase(place);
        timer.cancel();
        if (window != XCB_NONE) // asked by a task that was cancelled
            display->leaveOpen(window);
    }
    Question(const Question &) = delete;
    Question &operator=(const Question &) = delete;

    /// What has come may be what is waited for.
    void wake() { wake(alive); }
    void answered(const xcb_selection_notify_event_t &event)
    {
        if (event.requestor == window)
            answer = event;
    }
    void written(const xcb_property_notify_event_t &event)
    {
        if (event.window == window && event.atom == display->atom(pasted) && event.state == XCB_PROPERTY_NEW_VALUE)
            pieceIsThere = true;
    }

    /// Forms that are offered now, and whether what is offered is marked.
    Task<void> findOffer()
    {
        if (display->offer.change == display->changes)
            co_return;
        Offer found{.change = display->changes};
        const bool owned = display->owner != XCB_NONE;
        if (owned)
            co_await fill(found);
        // Somebody may have copied something else meanwhile; whoever asks then is told nothing.
        if (found.change == display->changes)
            display->offer = std::move(found);
    }

    /// All that the server has told before is known afterwards.
    Task<void> catchUp()
    {
        const auto cookie = ::xcb_get_input_focus(display->connection);
        co_await reply<xcb_get_input_focus_reply_t>(cookie.sequence);
    }

    /// The content in a form, at most `limit` bytes.
    Task<Content> convert(xcb_atom_t form, std::size_t limit)
    {
        open();
        ::xcb_convert_selection(
            display->connection, window, display->atom(clipboard), form, display->atom(pasted), display->changedAt);
        display->send();
        std::function<bool()> done = [this] { return answer.has_value(); };
        const bool came = co_await until(std::move(done));
        if (!came) {
            display->leaveOpen(std::exchange(window, XCB_NONE));
            co_return Content{.outcome = Content::unanswered};
        }
        Content content;
        if (answer->property != XCB_ATOM_NONE)
            content = co_await receive(limit);
        if (content.outcome == Content::unanswered)
            display->leaveOpen(std::exchange(window, XCB_NONE));
        else
            close();
        co_return content;
    }

    Task<XcbReply<xcb_get_property_reply_t>> property(xcb_window_t of, xcb_atom_t name, std::uint32_t first, std::uint32_t count)
    {
        const auto cookie = ::xcb_get_property(display->connection, 0, of, name, XCB_ATOM_ANY, first, count);
        co_return co_await reply<xcb_get_property_reply_t>(cookie.sequence);
    }

    /// Waits until it is so. False when the deadline came first, or the display has gone.
    Task<bool> until(std::function<bool()> truth)
    {
        for (;;) {
            if (truth())
                co_return true;
            if (alive->over || display->broken())
                co_return false;
            std::function<void(Continuation<void>)> begin = [state = alive](
                                                                Continuation<void> next) { state->waiting = std::move(next); };
            co_await suspend<void>(std::move(begin));
        }
    }

    /// The application of a window with these classes.
    Task<std::optional<std::string>> identified(Identify identify, std::vector<std::string> classes)
    {
        const auto found = std::make_shared<Found>();
        Task<void> task = identifyInto(std::move(identify), std::move(classes), found, alive);
        spawnDetached(display->mainThread, std::move(task));
        std::function<bool()> done = [found] { return found->done; };
        co_await until(std::move(done));
        co_return found->id;
    }

private:
    /// What the timer reaches; the question may have ended before it.
    struct State {
        bool over = false;
        std::optional<Continuation<void>> waiting;
    };

    struct Found {
        bool done = false;
        std::optional<std::string> id;
    };

    static Task<void> identifyInto(
        Identify identify, std::vector<std::string> classes, std::shared_ptr<Found> found, std::shared_ptr<State> state)
    {
        found->id = co_await identify(std::move(classes));
        found->done = true;
        wake(state);
    }

    static void wake(const std::shared_ptr<State> &state)
    {
        if (const auto waiting = std::exchange(state->waiting, std::nullopt))
            waiting->resume();
    }

    static Task<void> expire(Clock &clock, std::shared_ptr<State> state)
    {
        co_await clock.sleep(patience);
        state->over = true;
        wake(state);
    }

    /// The answer of the server; null for an error, after the deadline, and when the display has gone.
    template <class Reply> Task<XcbReply<Reply>> reply(unsigned sequence)
    {
        void *bytes = nullptr;
        xcb_generic_error_t *error = nullptr;
        display->send();
        std::function<bool()> there = [&] {
            // Looking for events is what reads; looking for the reply does not. The other way round, one that came in between
            // would wait in the library for the next thing to happen.
            display->handleEvents();
            return ::xcb_poll_for_reply(display->connection, sequence, &bytes, &error) != 0;
        };
        const bool came = co_await until(std::move(there));
        if (!came)
            ::xcb_discard_reply(display->connection, sequence);
        const XcbReply<xcb_generic_error_t> owned(error);
        co_return XcbReply<Reply>(static_cast<Reply *>(bytes));
    }

    void open()
    {
        answer.reset();
        window = ::xcb_generate_id(display->connection);
        const std::uint32_t events = XCB_EVENT_MASK_PROPERTY_CHANGE;
        ::xcb_create_window(display->connection, XCB_COPY_FROM_PARENT, window, display->root, -1, -1, 1, 1, 0,
            XCB_WINDOW_CLASS_INPUT_ONLY, XCB_COPY_FROM_PARENT, XCB_CW_EVENT_MASK, &events);
    }

    void close()
    {
        ::xcb_destroy_window(display->connection, std::exchange(window, XCB_NONE));
        display->send();
    }

    Task<void> fill(Offer &offer)
    {
        const Content list = co_await convert(display->atom(targets), longestList);
        if (list.outcome != Content::given || list.format != 32)
            co_return;
        const auto forms = list.units<xcb_atom_t>();
        const bool marked = std::ranges::find(forms, display->atom(hint)) != forms.end();
        if (marked)
            offer.concealed = co_await isSecret();
        offer.types = co_await namesOf(forms);
    }

    Task<bool> isSecret()
    {
        const Content content = co_await convert(display->atom(hint), pasteboardForms::longestHint);
        const bool readable = content.outcome == Content::given && content.format == 8;
        co_return pasteboardForms::conceals(readable ? std::optional(content.bytes) : std::nullopt);
    }

    /// Names of all of them, or none when the server does not tell in time. A number that is nobody's name is left out.
    Task<std::vector<std::string>> namesOf(std::vector<xcb_atom_t> forms)
    {
        auto &known = display->typeNames;
        if (known.size() > knownNames)
            known.clear();
        std::vector<std::pair<xcb_atom_t, unsigned>> asked;
        for (const xcb_atom_t form : forms)
            if (!known.contains(form))
                asked.emplace_back(form, ::xcb_get_atom_name(display->connection, form).sequence);
        for (std::size_t i = 0; i < asked.size(); ++i) {
            const auto &[form, sequence] = asked[i];
            const auto name = co_await reply<xcb_get_atom_name_reply_t>(sequence);
            if (name)
                known[form] =
                    std::string(::xcb_get_atom_name_name(name.get()), std::size_t(::xcb_get_atom_name_name_length(name.get())));
            else if (alive->over || display->broken()) {
                for (std::size_t left = i + 1; left < asked.size(); ++left)
                    ::xcb_discard_reply(display->connection, asked[left].second);
                co_return std::vector<std::string>();
            }
        }
        std::vector<std::string> all;
        for (const xcb_atom_t form : forms)
            if (const auto name = known.find(form); name != known.end())
                all.push_back(name->second);
        co_return all;
    }

    /// What the owner has written, or goes on to write piece by piece.
    Task<Content> receive(std::size_t limit)
    {
        const auto head = co_await property(window, display->atom(pasted), 0, 1);
        if (!head || head->type == XCB_ATOM_NONE)
            co_return Content{};
        if (head->type != display->atom(incr))
            co_return co_await read(limit);
        // Its content is a lower limit of the size. Whoever is never told to begin keeps what he has.
        std::uint32_t announced = 0;
        if (::xcb_get_property_value_length(head.get()) >= int(sizeof announced))
            std::memcpy(&announced, ::xcb_get_property_value(head.get()), sizeof announced);
        if (announced > limit)
            co_return Content{.outcome = Content::tooLarge};
        co_return co_await receivePieces(limit);
    }

    Task<Content> receivePieces(std::size_t limit)
    {
        Content all{.outcome = Content::given};
        for (;;) {
            pieceIsThere = false;
            ::xcb_delete_property(display->connection, window, display->atom(pasted));
            display->send();
            Content piece;
            do {
                std::function<bool()> written = [this] { return std::exchange(pieceIsThere, false); };
                const bool came = co_await until(std::move(written));
                if (!came)
                    co_return Content{.outcome = Content::unanswered};
                piece = co_await read(limit - all.bytes.size());
            } while (piece.outcome == Content::refused); // told of once, and gone with the piece before
            if (piece.outcome != Content::given)
                co_return piece;
            if (piece.bytes.empty())
                co_return all;
            all.format = piece.format;
            all.bytes += piece.bytes;
        }
    }

    /// The window's property, unless it is larger: then nothing of it comes over.
    Task<Content> read(std::size_t limit)
    {
        const auto size = co_await property(window, display->atom(pasted), 0, 0);
        if (!size)
            co_return Content{.outcome = Content::unanswered};
        if (size->type == XCB_ATOM_NONE)
            co_return Content{};
        if (size->bytes_after > limit)
            co_return Content{.outcome = Content::tooLarge};
        Content content{.outcome = Content::given, .format = size->format};
        const std::size_t whole = size->bytes_after;
        while (content.bytes.size() < whole) {
            const auto first = static_cast<std::uint32_t>(content.bytes.size() / 4);
            const auto part = co_await property(window, display->atom(pasted), first, pieceWords);
            const int length = part ? ::xcb_get_property_value_length(part.get()) : 0;
            if (length <= 0)
                co_return Content{.outcome = Content::unanswered};
            content.bytes.append(static_cast<const char *>(::xcb_get_property_value(part.get())), std::size_t(length));
        }
        co_return content;
    }

    const std::shared_ptr<Display> display;
    const std::list<Question *>::iterator place;
    const std::shared_ptr<State> alive = std::make_shared<State>();
    TaskHandle timer;
    xcb_window_t window = XCB_NONE;
    std::optional<xcb_selection_notify_event_t> answer;
    bool pieceIsThere = false;
};

bool X11PasteboardWatching::Display::pump()
{
    if (!connection)
        return false;
    handleEvents();
    for (Question *const question : questions)
        question->wake();
    if (broken() && std::exchange(following, false)) {
        AppLog::app.error("The clipboard is not followed any more: the display has gone.");
        lost(L10n::key("New copies are not kept: this display does not report them."));
    }
    return !broken();
}

void X11PasteboardWatching::Display::handle(const xcb_generic_event_t &event)
{
    const std::uint8_t kind = event.response_type & eventKind;
    if (kind == changeEvent)
        return changed(reinterpret_cast<const xcb_xfixes_selection_notify_event_t &>(event));
    if (kind == XCB_SELECTION_NOTIFY) {
        const auto &notice = reinterpret_cast<const xcb_selection_notify_event_t &>(event);
        closeLate(notice.requestor);
        for (Question *const question : questions)
            question->answered(notice);
    } else if (kind == XCB_PROPERTY_NOTIFY) {
        for (Question *const question : questions)
            question->written(reinterpret_cast<const xcb_property_notify_event_t &>(event));
    }
}

X11PasteboardWatching::X11PasteboardWatching(
    Executor mainThread, Executor pool, Clock &clock, std::string name, Identify identify) :
    mainThread(mainThread),
    identify(std::move(identify)), display(std::make_shared<Display>(mainThread, clock))
{
    display->lost = [this](const char *why) { obstacle = why; };
    Task<void> task = follow(display, std::move(pool), std::move(name));
    reading = spawn(mainThread, std::move(task));
}

X11PasteboardWatching::~X11PasteboardWatching()
{
    reading.cancel();
    display->end();
}

Task<void> X11PasteboardWatching::follow(std::shared_ptr<Display> display, Executor pool, std::string name)
{
    Actor connecting(std::move(pool));
    // Filled in on the pool and read here only after its end.
    auto connect = [display, name = std::move(name)](std::stop_token) { return display->connect(name); };
    display->following = co_await connecting.run(std::move(connect));
    if (!display->following) {
        AppLog::app.error("The clipboard is not followed: the display does not tell of changes.");
        display->lost(L10n::key("New copies are not kept: this display does not report them."));
        co_return;
    }
    while (display->pump())
        co_await waitUntilReadable(display->readable());
}

bool X11PasteboardWatching::following() const { return display->following; }

std::int64_t X11PasteboardWatching::changeCount() const { return display->changes; }

Task<std::vector<std::string>> X11PasteboardWatching::types()
{
    const auto held = display;
    if (!held->following)
        co_return std::vector<std::string>();
    Question question(held);
    co_await question.findOffer();
    if (held->offer.change != held->changes)
        co_return std::vector<std::string>();
    std::vector<std::string> types = held->offer.types;
    if (held->offer.concealed)
        types.emplace_back(concealedType);
    co_return types;
}

Task<X11PasteboardWatching::Mark> X11PasteboardWatching::mark()
{
    const auto held = display;
    if (!held->following)
        co_return Mark{};
    Question question(held);
    co_await question.catchUp();
    const Mark begun{.change = held->changes, .maybeSecret = held->owner != XCB_NONE};
    co_await question.findOffer();
    const bool told = held->offer.change == begun.change && held->changes == begun.change && !held->offer.types.empty();
    co_return Mark{.change = held->changes, .maybeSecret = begun.maybeSecret && (!told || held->offer.concealed)};
}

Task<std::optional<std::string>> X11PasteboardWatching::string(Form form, std::size_t limit)
{
    const auto held = display;
    if (!held->following)
        co_return std::nullopt;
    Question question(held);
    co_await question.findOffer();
    const Offer offer = held->offer;
    if (offer.change != held->changes || offer.concealed)
        co_return std::nullopt;
    for (const auto &source : pasteboardForms::sources(form, offer.types)) {
        const auto named = std::ranges::find(held->typeNames, source.type, [](const auto &one) { return one.second; });
        if (named == held->typeNames.end())
            continue;
        Content content = co_await question.convert(named->first, limit);
        if (offer.change != held->changes || content.outcome == Content::tooLarge || content.outcome == Content::unanswered)
            co_return std::nullopt; // another owner's, perhaps
        if (content.outcome != Content::given || content.format != 8)
            continue;
        auto text = pasteboardForms::decoded(source.writing, std::move(content.bytes));
        if (text && text->size() <= limit)
            co_return text;
    }
    co_return std::nullopt;
}

Task<bool> X11PasteboardWatching::mayHoldText()
{
    const auto held = display;
    if (!held->following)
        co_return true;
    Question question(held);
    co_await question.findOffer();
    const Offer &offer = held->offer;
    if (offer.change != held->changes || offer.concealed)
        co_return true;
    if (offer.types.empty())
        co_return held->owner != XCB_NONE;
    co_return !pasteboardForms::sources(Form::text, offer.types).empty();
}

Task<std::optional<std::string>> X11PasteboardWatching::frontmostApplication()
{
    const auto held = display;
    if (!held->following)
        co_return std::nullopt;
    Question question(held);
    const auto active = co_await question.property(held->root, held->atom(activeWindow), 0, 1);
    xcb_window_t window = XCB_NONE;
    if (active && ::xcb_get_property_value_length(active.get()) >= int(sizeof window))
        std::memcpy(&window, ::xcb_get_property_value(active.get()), sizeof window);
    if (window == XCB_NONE)
        co_return std::nullopt;
    constexpr std::uint32_t words = 64;
    const auto named = co_await question.property(window, XCB_ATOM_WM_CLASS, 0, words);
    const int length = named ? ::xcb_get_property_value_length(named.get()) : 0;
    if (length <= 0)
        co_return std::nullopt;
    const auto *const bytes = static_cast<const char *>(::xcb_get_property_value(named.get()));
    std::vector<std::string> classes;
    for (const char *at = bytes, *end = bytes + length; at < end; at += classes.back().size() + 1)
        classes.emplace_back(at, ::strnlen(at, std::size_t(end - at)));
    co_return co_await question.identified(identify, std::move(classes));
}

} // namespace korvane
