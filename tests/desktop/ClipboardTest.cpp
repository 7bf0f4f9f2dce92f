// The clipboard of a real X server, followed. Other programs are connections of the test's own. Waits look again until a
// deadline; the patience with programs that do not answer is on a clock that the test moves.
#include "Vorrel/Launch/ClipboardService.h"
#include "Vorrel/Platform/Headless/HeadlessSystem.h"
#include "Vorrel/Platform/Linux/LinuxPasteboardWatching.h"
#include "Vorrel/Platform/Linux/PasteboardForms.h"
#include "Vorrel/Platform/Linux/X11PasteboardWatching.h"
#include "Vorrel/Platform/Linux/XcbPasteboard.h"
#include "tests/desktop/ClipboardOwner.h"
#include "tests/support/Await.h"
#include "tests/support/DiskFolder.h"
#include "tests/support/Soon.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <poll.h>

namespace korvane::test {

using namespace std::chrono_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;
using Form = PasteboardWatching::Form;
using Strings = std::vector<std::string>;
using Text = std::optional<std::string>;

namespace {

constexpr std::size_t limit = ClipboardRepository::largestContent;

struct FollowedClipboard : testing::Test {
    FollowedClipboard()
    {
        EXPECT_TRUE(soon(loop, [this] { return watching.following(); }));
    }
    ~FollowedClipboard() override { loop.shutDown(); }

    template <class Act> void changing(Act act, std::int64_t times = 1)
    {
        const auto before = watching.changeCount();
        act();
        ASSERT_TRUE(soon(loop, [&] { return watching.changeCount() >= before + times; }));
        EXPECT_EQ(watching.changeCount(), before + times);
    }
    void copied(ClipboardOwner::Copy what)
    {
        changing([&] { owner.copy(std::move(what)); });
    }
    void copied(const std::string &text)
    {
        changing([&] { owner.copy(text); });
    }

    Strings types() { return await(loop, watching.types()); }
    Text text(std::size_t most = limit) { return await(loop, watching.string(Form::text, most)); }
    Text url() { return await(loop, watching.string(Form::url, limit)); }

    /// One look of the service, and what it has kept so far, the newest first.
    Strings history()
    {
        await(loop, service->capture());
        Strings all;
        for (const auto &entry : await(loop, repository.search("")))
            all.push_back(entry.content);
        return all;
    }

    MainLoop loop;
    ManualClock clock{loop};
    ThreadPool pool{2};
    Strings classes; // of the window in front, as they were looked up
    X11PasteboardWatching watching{loop.executor(), pool.executor(), clock, std::getenv("DISPLAY"),
        [this](Strings names) -> Task<std::optional<std::string>> {
            classes = std::move(names);
            co_return "org.example.front";
        }};
    ClipboardOwner owner;
    HeadlessPasteboard pasteboard;
    std::shared_ptr<Database> database = await(loop, Database::open(loop.executor(), ":memory:", Database::Access::readWrite));
    ClipboardRepository repository{database, clock};
    std::shared_ptr<ClipboardService> service =
        std::make_shared<ClipboardService>(loop.executor(), clock, repository, &watching, pasteboard);
};

/// Asks again and again; each time the loop turns for the answer.
bool soon(const std::function<bool()> &truth)
{
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while (!truth())
        if (std::chrono::steady_clock::now() > deadline)
            return false;
    return true;
}

/// While it lives the server answers nobody else.
class HeldServer {
public:
    HeldServer() : x(::xcb_connect(nullptr, nullptr))
    {
        ::xcb_grab_server(x);
        std::free(::xcb_get_input_focus_reply(x, ::xcb_get_input_focus(x), nullptr));
    }
    ~HeldServer() { ::xcb_disconnect(x); }
    HeldServer(const HeldServer &) = delete;
    HeldServer &operator=(const HeldServer &) = delete;

private:
    xcb_connection_t *const x;
};

/// Kilobytes of a line of /proc/self/status.
std::size_t memory(const char *name)
{
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);)
        if (line.starts_with(name))
            return std::strtoul(line.c_str() + std::strlen(name) + 1, nullptr, 10);
    return 0;
}

} // namespace

TEST_F(FollowedClipboard, ACopyIsToldWithItsFormsAndItsText)
{
    copied("hello, 文字");
    EXPECT_THAT(types(), ElementsAre("TARGETS", "UTF8_STRING"));
    EXPECT_EQ(text(), "hello, 文字");
    EXPECT_EQ(url(), std::nullopt) << "what is copied is the text";
}

TEST_F(FollowedClipboard, WhatIsThereAtTheStartIsNoChange)
{
    copied("before");
    X11PasteboardWatching second(loop.executor(), pool.executor(), clock, std::getenv("DISPLAY"), {});
    ASSERT_TRUE(soon(loop, [&] { return second.following(); }));
    EXPECT_EQ(second.changeCount(), 0);
}

TEST_F(FollowedClipboard, TheSameTextCopiedAgainAndAClearedClipboardAreChanges)
{
    copied("one");
    copied("one");
    changing([this] { owner.clear(); });
    EXPECT_THAT(types(), IsEmpty());
    EXPECT_EQ(text(), std::nullopt);
}

TEST_F(FollowedClipboard, AnOwnerThatGoesAwayIsAChange)
{
    auto other = std::make_unique<ClipboardOwner>();
    changing([&] { other->copy("kept by nobody"); });
    changing([&] { other.reset(); });
    EXPECT_EQ(text(), std::nullopt);
}

TEST_F(FollowedClipboard, TwentyCopiesInOneGoAreCountedAndTheLookTakesTheLast)
{
    changing(
        [this] {
            for (int i = 1; i <= 20; ++i)
                owner.copy("copy " + std::to_string(i));
        },
        20);
    EXPECT_EQ(history(), Strings{"copy 20"});
    EXPECT_EQ(history(), Strings{"copy 20"});
}

TEST_F(FollowedClipboard, AMillionBytesComeAndOneMoreDoesNot)
{
    copied(std::string(limit, 'x'));
    EXPECT_EQ(text(), std::string(limit, 'x'));
    copied(std::string(limit + 1, 'x'));
    EXPECT_EQ(text(), std::nullopt);
}

TEST_F(FollowedClipboard, ATextAtOnceIsMeasuredBeforeItIsRead)
{
    copied(std::string(100'000, 'x'));
    EXPECT_EQ(text(99'999), std::nullopt);
    EXPECT_EQ(text(100'000), std::string(100'000, 'x'));
}

TEST_F(FollowedClipboard, FiveMegabytesAreRefusedAtTheirAnnouncement)
{
    copied(std::string(5'000'000, 'x'));
    EXPECT_EQ(text(), std::nullopt);
    EXPECT_EQ(owner.sent, 0U);
    EXPECT_TRUE(history().empty());
    copied("next");
    EXPECT_EQ(history(), Strings{"next"});
}

TEST_F(FollowedClipboard, SevenHundredMegabytesCostNoMemoryWhateverIsAnnounced)
{
    constexpr std::size_t huge = 700'000'000, mostMemory = 5 * 1024; // bytes, and kilobytes
    text(); // whatever a first question needs
    for (const std::uint32_t announced : {std::uint32_t(huge), 0U}) {
        SCOPED_TRACE(announced);
        changing([&] { owner.copyHuge(huge, announced); });
        std::ofstream("/proc/self/clear_refs") << "5"; // the most from here on
        const std::size_t before = memory("VmRSS:");
        EXPECT_EQ(text(), std::nullopt);
        EXPECT_LE(memory("VmHWM:"), before + mostMemory);
    }
    EXPECT_LE(owner.sent, 2 * limit) << "the running transfer was left as it crossed the limit";
}

TEST_F(FollowedClipboard, AMuteOwnerIsGivenUpAfterTwoSecondsAndAskedNoMore)
{
    copied({.forms = {{"UTF8_STRING", "never told"}}, .answersNothing = true});
    Begun<Strings> question(loop, watching.types());
    ASSERT_TRUE(soon(loop, [this] { return owner.asked == 1; })) << "and the loop turns meanwhile";
    clock.advance(X11PasteboardWatching::patience - 1ms);
    EXPECT_FALSE(question.done());
    clock.advance(1ms);
    ASSERT_TRUE(question.done());
    EXPECT_THAT(question.result(), IsEmpty());
    EXPECT_EQ(text(), std::nullopt) << "its marks are not known";
    EXPECT_EQ(owner.asked, 1);
    copied("next");
    EXPECT_EQ(text(), "next");
}

TEST_F(FollowedClipboard, AnOwnerThatTellsItsFormsAndNoTextIsGivenUpToo)
{
    copied({.forms = {}, .mute = {"UTF8_STRING"}});
    ASSERT_THAT(types(), Contains("UTF8_STRING"));
    Begun<Text> question(loop, watching.string(Form::text, limit));
    ASSERT_TRUE(soon(loop, [this] { return owner.asked == 2; }));
    clock.advance(X11PasteboardWatching::patience);
    ASSERT_TRUE(question.done());
    EXPECT_EQ(question.result(), std::nullopt);
}

TEST_F(FollowedClipboard, AnOwnerThatDiesInTheMiddleLeavesNothingBehind)
{
    auto dying = std::make_unique<ClipboardOwner>();
    dying->diesAfterPiece = true;
    changing([&] { dying->copy(std::string(500'000, 'x')); });
    Begun<Text> question(loop, watching.string(Form::text, limit));
    const auto before = watching.changeCount();
    ASSERT_TRUE(soon(loop, [&] { return watching.changeCount() > before; }));
    clock.advance(X11PasteboardWatching::patience);
    ASSERT_TRUE(question.done());
    EXPECT_EQ(question.result(), std::nullopt);
    copied("next");
    EXPECT_EQ(text(), "next");
}

TEST_F(FollowedClipboard, ASecretIsConcealedAndNotEvenRead)
{
    copied({.forms = {{"UTF8_STRING", "pass word"}, {pasteboardForms::hint, "secret"}}});
    EXPECT_THAT(types(), Contains(PasteboardWatching::concealedType));
    const int asked = owner.asked;
    EXPECT_EQ(text(), std::nullopt);
    EXPECT_EQ(owner.asked, asked);
    EXPECT_TRUE(history().empty());
    changing([this] { owner.clear(); });
    EXPECT_TRUE(history().empty());
    changing([this] { owner.copy(""); });
    EXPECT_TRUE(history().empty());
}

TEST_F(FollowedClipboard, ThatThereIsNoTextIsSaidOnlyWhereItIsKnown)
{
    const auto mayHoldText = [this] { return await(loop, watching.mayHoldText()); };
    copied("plain");
    EXPECT_TRUE(mayHoldText());
    copied({.forms = {{"image/png", "a picture"}}});
    EXPECT_FALSE(mayHoldText());
    copied({.forms = {{"UTF8_STRING", "pass word"}, {pasteboardForms::hint, "secret"}}});
    EXPECT_TRUE(mayHoldText());
    changing([this] { owner.clear(); });
    EXPECT_FALSE(mayHoldText()) << "nothing is there";

    copied({.forms = {{"UTF8_STRING", "never told"}}, .answersNothing = true});
    const int asked = owner.asked;
    Begun<bool> question(loop, watching.mayHoldText());
    ASSERT_TRUE(soon(loop, [&] { return owner.asked > asked; }));
    clock.advance(X11PasteboardWatching::patience);
    EXPECT_TRUE(question.result()) << "nobody knows";
}

TEST_F(FollowedClipboard, AHintThatCannotBeReadIsASecretAndAnotherWordIsNone)
{
    copied({.forms = {{"UTF8_STRING", "pass word"}, {pasteboardForms::hint, std::string(65, 's')}}});
    EXPECT_THAT(types(), Contains(PasteboardWatching::concealedType)) << "too long";
    copied({.forms = {{"UTF8_STRING", "plain"}, {pasteboardForms::hint, "none"}}});
    EXPECT_THAT(types(), Not(Contains(PasteboardWatching::concealedType)));
    EXPECT_EQ(text(), "plain");

    copied({.forms = {{"UTF8_STRING", "pass word"}}, .mute = {pasteboardForms::hint}});
    const int asked = owner.asked;
    Begun<Strings> question(loop, watching.types());
    ASSERT_TRUE(soon(loop, [&] { return owner.asked == asked + 2; }));
    clock.advance(X11PasteboardWatching::patience);
    ASSERT_TRUE(question.done());
    EXPECT_EQ(text(), std::nullopt) << "not answered";
    EXPECT_EQ(history(), Strings{});
}

TEST_F(FollowedClipboard, AfterAFirstOwnerThatNeverTellsItsHintTheNextCopyIsKept)
{
    copied({.forms = {{"UTF8_STRING", "pass word"}}, .mute = {pasteboardForms::hint}});
    Begun<Strings> question(loop, watching.types());
    ASSERT_TRUE(soon(loop, [this] { return owner.asked == 2; }));
    {
        const HeldServer noNameIsTold;
        clock.advance(X11PasteboardWatching::patience);
        EXPECT_THAT(question.result(), ElementsAre(PasteboardWatching::concealedType));
    }
    EXPECT_THAT(history(), IsEmpty());
    copied("next");
    EXPECT_THAT(history(), ElementsAre("next"));
}

TEST_F(FollowedClipboard, FormsAreToldAllOrNoneWhereverThePatienceEnds)
{
    copied("plain");
    types(); // the usual names are known from here on
    bool whole = false;
    int turns = 0, notTold = 0;
    for (; !whole; ++turns) {
        const std::string mark = "application/x-mark-" + std::to_string(turns);
        copied({.forms = {{"UTF8_STRING", "marked"}, {mark, ""}}});
        Begun<Strings> question(loop, watching.types());
        int turned = 0;
        loop.runUntil([&] { return ++turned > turns || question.done(); });
        {
            const HeldServer nobodyIsAnswered;
            clock.advance(X11PasteboardWatching::patience);
            loop.runUntil([&] { return question.done(); });
        }
        whole = turned <= turns;
        const Strings told = question.result();
        EXPECT_THAT(told, testing::AnyOf(IsEmpty(), Contains(mark))) << turns;
        EXPECT_EQ(text(), told.empty() ? Text() : Text("marked")) << turns;
        notTold += told.empty();
    }
    EXPECT_GT(notTold, 3) << "of " << turns;
}

TEST_F(FollowedClipboard, EachMarkByItsNameKeepsATextOutThoughNoHintIsOffered)
{
    for (const char *mark :
        {"org.nspasteboard.ConcealedType", "org.nspasteboard.TransientType", "org.nspasteboard.AutoGeneratedType"}) {
        copied({.forms = {{"UTF8_STRING", "pass word"}, {mark, ""}}});
        EXPECT_THAT(types(), Contains(mark));
        EXPECT_THAT(history(), IsEmpty());
    }
    copied("plain");
    EXPECT_THAT(history(), ElementsAre("plain"));
}

TEST_F(FollowedClipboard, AMarkIsThatOfTheMomentAndNotOfTheLastEvent)
{
    EXPECT_FALSE(await(loop, watching.mark()).maybeSecret) << "nothing is there";
    owner.copy({.forms = {{"UTF8_STRING", "pass word"}, {pasteboardForms::hint, "secret"}}});
    EXPECT_TRUE(await(loop, watching.mark()).maybeSecret) << "though its event has not been read yet";
    owner.copy("plain");
    EXPECT_FALSE(await(loop, watching.mark()).maybeSecret);
    EXPECT_EQ(await(loop, watching.mark()), (X11PasteboardWatching::Mark{.change = 2, .maybeSecret = false}));

    owner.copy({.forms = {}, .answersNothing = true});
    Begun<X11PasteboardWatching::Mark> question(loop, watching.mark());
    const int asked = owner.asked;
    ASSERT_TRUE(soon(loop, [&] { return owner.asked > asked; }));
    clock.advance(X11PasteboardWatching::patience);
    EXPECT_TRUE(question.result().maybeSecret) << "nobody said that it is not";
}

TEST_F(FollowedClipboard, ASecretThatComesBetweenTwoQuestionsIsNotTaken)
{
    copied("plain");
    bool replaced = false;
    owner.onRequest = [&](const std::string &form) {
        if (form == "UTF8_STRING" && !std::exchange(replaced, true))
            owner.copy({.forms = {{"UTF8_STRING", "pass word"}, {pasteboardForms::hint, "secret"}}});
    };
    EXPECT_THAT(history(), IsEmpty());
    EXPECT_TRUE(replaced);
    EXPECT_THAT(history(), IsEmpty());
    copied("plain again");
    EXPECT_THAT(history(), ElementsAre("plain again"));
}

TEST_F(FollowedClipboard, ASecretThatIsReplacedBeforeTheLookLeavesWhatReplacedIt)
{
    changing(
        [this] {
            owner.copy({.forms = {{"UTF8_STRING", "pass word"}, {pasteboardForms::hint, "secret"}}});
            owner.copy("what was there before");
        },
        2);
    EXPECT_THAT(history(), ElementsAre("what was there before"));
}

TEST_F(FollowedClipboard, OfSeveralFormsTheUnicodeTextIsTaken)
{
    copied({.forms = {{"STRING", "latin"}, {"text/html", "<b>rich</b>"}, {"text/plain;charset=utf-8", "plain"},
                {"text/uri-list", "https://example.org"}, {"image/png", "…"}, {"UTF8_STRING", "unicode"}}});
    EXPECT_EQ(text(), "unicode");
    copied({.forms = {{"STRING", "latin"}, {"text/plain;charset=utf-8", "plain ü"}}});
    EXPECT_EQ(text(), "plain ü");
    copied({.forms = {{"STRING",
                "Stra\xDF"
                "e"}}});
    EXPECT_EQ(text(), "Straße");
    copied({.forms = {{"UTF8_STRING", "\xFF\xFE"}}});
    EXPECT_EQ(text(), std::nullopt) << "not what it says";
}

TEST_F(FollowedClipboard, AnAddressAloneIsAnAddressAndAFileIsNone)
{
    copied({.forms = {{"text/uri-list", "# from a page\r\nhttps://example.org/a\r\n"}}});
    EXPECT_EQ(text(), std::nullopt);
    EXPECT_EQ(url(), "https://example.org/a");
    copied({.forms = {{"_NETSCAPE_URL", "https://example.org/b\nA page"}}});
    EXPECT_EQ(url(), "https://example.org/b");
    copied({.forms = {{"text/x-moz-url", std::string("h\0:\0x\0\n\0t\0", 10)}}});
    EXPECT_EQ(url(), "h:x");
    copied({.forms = {{"text/uri-list", "file:///home/ada/picture.png\r\n"}, {"image/png", "…"}}});
    EXPECT_EQ(url(), std::nullopt);
    copied({.forms = {{"text/uri-list", "https://a.example\r\nhttps://b.example\r\n"}}});
    EXPECT_EQ(url(), std::nullopt) << "several";
    EXPECT_THAT(history(), IsEmpty());
}

TEST_F(FollowedClipboard, OurOwnCopyIsSeenLikeAnyOther)
{
    XcbPasteboard own(pool.executor(), std::getenv("DISPLAY"));
    for (const std::string &copy : {std::string("ours"), std::string(900'000, 'o')}) {
        SCOPED_TRACE(copy.size());
        changing([&] { EXPECT_TRUE(await(loop, own.setText(copy))); });
        EXPECT_EQ(text(), copy);
    }
}

TEST_F(FollowedClipboard, TheWindowInFrontTellsItsApplication)
{
    const FrontWindow window;
    EXPECT_TRUE(soon([this] { return await(loop, watching.frontmostApplication()) == "org.example.front"; }));
    EXPECT_THAT(classes, ElementsAre("editor", "Example Editor"));
}

TEST_F(FollowedClipboard, ALookupThatHangsIsNotWaitedForLongerThanTwoSeconds)
{
    const FrontWindow window;
    ASSERT_TRUE(soon([this] { return await(loop, watching.frontmostApplication()).has_value(); }));
    bool looking = false;
    X11PasteboardWatching slow(
        loop.executor(), pool.executor(), clock, std::getenv("DISPLAY"), [&](Strings) -> Task<std::optional<std::string>> {
            looking = true;
            co_await clock.sleep(1h);
            co_return "late";
        });
    ASSERT_TRUE(soon(loop, [&] { return slow.following(); }));
    Begun<Text> question(loop, slow.frontmostApplication());
    ASSERT_TRUE(soon(loop, [&] { return looking; }));
    EXPECT_FALSE(question.done());
    clock.advance(X11PasteboardWatching::patience);
    ASSERT_TRUE(question.done());
    EXPECT_EQ(question.result(), std::nullopt);
}

TEST_F(FollowedClipboard, ALostConnectionEndsTheQuestionAndIsToldInOneSentence)
{
    copied({.forms = {}, .answersNothing = true});
    Begun<Strings> question(loop, watching.types());
    ASSERT_TRUE(soon(loop, [this] { return owner.asked == 1; }));
    owner.cutOff();
    EXPECT_THAT(question.result(), IsEmpty());
    EXPECT_TRUE(soon(loop, [this] { return watching.obstacle.get().has_value(); }));
    EXPECT_EQ(watching.obstacle.get(), "New copies are not kept: this display does not report them.");
    EXPECT_FALSE(watching.following());
    EXPECT_THAT(history(), IsEmpty());
    EXPECT_EQ(await(loop, watching.frontmostApplication()), std::nullopt);
}

TEST(ClipboardOfNoDisplay, SaysWhyNothingIsKept)
{
    MainLoop loop;
    ManualClock clock(loop);
    ThreadPool pool(1);
    X11PasteboardWatching watching(loop.executor(), pool.executor(), clock, ":12345", {});
    EXPECT_TRUE(soon(loop, [&] { return watching.obstacle.get().has_value(); }));
    EXPECT_EQ(watching.obstacle.get(), "New copies are not kept: this display does not report them.");
    EXPECT_EQ(watching.changeCount(), 0);
    EXPECT_THAT(await(loop, watching.types()), IsEmpty());
    EXPECT_EQ(await(loop, watching.string(Form::text, 10)), std::nullopt);
    EXPECT_EQ(await(loop, watching.frontmostApplication()), std::nullopt);
    loop.shutDown();
}

TEST_F(FollowedClipboard, WhatIsLeftToTheXServerOfADesktopThatRefusesIsSaidToBeNotAll)
{
    const DiskFolder disk;
    disk.script("wl-paste", "exit 1");
    const DesktopEntries entries({});
    const Strings environment{"PATH=" + disk.path, "WAYLAND_DISPLAY=x", std::string("DISPLAY=") + std::getenv("DISPLAY")};
    LinuxPasteboardWatching followed(loop.executor(), pool.executor(), clock, environment, entries);
    ASSERT_TRUE(soon(loop, [&] { return followed.obstacle.get().has_value(); }));
    EXPECT_EQ(followed.obstacle.get(), "Not every copy is kept: this desktop does not let programs follow the clipboard.");
    const auto before = followed.changeCount();
    owner.copy("of an X program");
    EXPECT_TRUE(soon(loop, [&] { return followed.changeCount() > before; }));
}

namespace {

/// A client that pastes several forms by one question.
class Paster {
public:
    Paster() : x(::xcb_connect(nullptr, nullptr)), window(::xcb_generate_id(x))
    {
        ::xcb_create_window(x, XCB_COPY_FROM_PARENT, window, ::xcb_setup_roots_iterator(::xcb_get_setup(x)).data->root, 0, 0, 1,
            1, 0, XCB_WINDOW_CLASS_INPUT_OUTPUT, XCB_COPY_FROM_PARENT, 0, nullptr);
    }
    ~Paster() { ::xcb_disconnect(x); }
    Paster(const Paster &) = delete;
    Paster &operator=(const Paster &) = delete;

    xcb_atom_t atom(const std::string &name)
    {
        const auto *const reply =
            ::xcb_intern_atom_reply(x, ::xcb_intern_atom(x, 0, std::uint16_t(name.size()), name.data()), nullptr);
        return reply->atom;
    }
    /// Asks for pairs of a form and a property; the pairs as they are answered.
    std::vector<xcb_atom_t> ask(const std::vector<xcb_atom_t> &pairs)
    {
        begin(pairs);
        return answer();
    }
    void begin(const std::vector<xcb_atom_t> &pairs)
    {
        ::xcb_change_property(
            x, XCB_PROP_MODE_REPLACE, window, atom("PAIRS"), atom("ATOM_PAIR"), 32, std::uint32_t(pairs.size()), pairs.data());
        ::xcb_convert_selection(x, window, atom("CLIPBOARD"), atom("MULTIPLE"), atom("PAIRS"), XCB_CURRENT_TIME);
        ::xcb_flush(x);
    }
    std::vector<xcb_atom_t> answer()
    {
        for (int i = 0; i < 500; ++i) {
            pollfd ready{::xcb_get_file_descriptor(x), POLLIN, 0};
            ::poll(&ready, 1, 10);
            const auto *const event = ::xcb_poll_for_event(x);
            if (!event || (event->response_type & 0x7f) != XCB_SELECTION_NOTIFY)
                continue;
            if (reinterpret_cast<const xcb_selection_notify_event_t *>(event)->property == XCB_ATOM_NONE)
                return {};
            const std::string bytes = property("PAIRS");
            std::vector<xcb_atom_t> answered(bytes.size() / sizeof(xcb_atom_t));
            std::memcpy(answered.data(), bytes.data(), bytes.size());
            return answered;
        }
        return {};
    }
    std::string property(const std::string &name)
    {
        const auto *const reply =
            ::xcb_get_property_reply(x, ::xcb_get_property(x, 0, window, atom(name), XCB_ATOM_ANY, 0, 1 << 20), nullptr);
        return std::string(
            static_cast<const char *>(::xcb_get_property_value(reply)), std::size_t(::xcb_get_property_value_length(reply)));
    }

private:
    xcb_connection_t *const x;
    const xcb_window_t window;
};

} // namespace

TEST_F(FollowedClipboard, OurCopyAnswersEveryOneOfThoseWhoAskAtOnce)
{
    XcbPasteboard own(pool.executor(), std::getenv("DISPLAY"));
    ASSERT_TRUE(await(loop, own.setText("ours")));
    std::array<Paster, 3> pasters;
    const std::vector<xcb_atom_t> pairs{pasters[0].atom("UTF8_STRING"), pasters[0].atom("A")};
    for (int round = 0; round < 3000; ++round) {
        for (Paster &paster : pasters)
            paster.begin(pairs);
        for (Paster &paster : pasters)
            ASSERT_EQ(paster.answer(), pairs) << round;
    }
}

TEST_F(FollowedClipboard, SeveralFormsOfOurCopyComeByOneQuestion)
{
    XcbPasteboard own(pool.executor(), std::getenv("DISPLAY"));
    ASSERT_TRUE(await(loop, own.setText("Straße 文")));
    Paster paster;
    const xcb_atom_t none = XCB_ATOM_NONE;
    const auto answered = paster.ask({paster.atom("UTF8_STRING"), paster.atom("A"), paster.atom("image/png"), paster.atom("B"),
        XCB_ATOM_STRING, paster.atom("C"), paster.atom("MULTIPLE"), paster.atom("D")});
    EXPECT_THAT(answered,
        ElementsAre(paster.atom("UTF8_STRING"), paster.atom("A"), paster.atom("image/png"), none, XCB_ATOM_STRING,
            paster.atom("C"), paster.atom("MULTIPLE"), none));
    EXPECT_EQ(paster.property("A"), "Straße 文");
    EXPECT_EQ(paster.property("C"),
        "Stra\xDF"
        "e ?");
    EXPECT_EQ(paster.property("B"), "");
}

} // namespace korvane::test
