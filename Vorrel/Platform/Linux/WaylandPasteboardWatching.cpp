#include "Vorrel/Platform/Linux/WaylandPasteboardWatching.h"

#include "Vorrel/Platform/Linux/ChildOutput.h"
#include "Vorrel/Platform/Linux/PasteboardForms.h"
#include "Vorrel/Shell/AppLog.h"
#include "Vorrel/Shell/L10n.h"

#include <algorithm>
#include <array>
#include <unistd.h>

namespace korvane {

namespace {

constexpr const char *program = "wl-paste";
constexpr std::size_t longestList = 64 * 1024; // bytes of the names of forms
constexpr Milliseconds untilNext{1000}; // from an unexpected end to the next start
constexpr double shortest = 1; // seconds that one watch lasts that the desktop has let begin

using Strings = std::vector<std::string>;

/// What is offered since one change, as far as it could be found out.
struct Offer {
    std::int64_t change = -1;
    Strings types = {};
    bool concealed = false;
};

Strings lines(std::string_view text)
{
    Strings all;
    while (!text.empty()) {
        const auto end = text.find('\n');
        if (end != 0)
            all.emplace_back(text.substr(0, end));
        text = end == std::string_view::npos ? std::string_view{} : text.substr(end + 1);
    }
    return all;
}

/// Whether the program takes one of these for a text.
bool holdsText(const Strings &types)
{
    return std::ranges::any_of(types, [](const std::string &type) {
        return type.starts_with("text/") || type == "TEXT" || type == "STRING" || type == "UTF8_STRING";
    });
}

} // namespace

class WaylandPasteboardWatching::Session {
public:
    Session(Executor mainThread, Executor pool, Clock &clock, Strings environment) :
        mainThread(std::move(mainThread)), pool(std::move(pool)), clock(clock), environment(std::move(environment))
    {
    }

    static Task<void> watch(std::shared_ptr<Session> self)
    {
        if (!findProgram(program, environmentValue(self->environment, "PATH"))) {
            self->giveUp(Standing::missing,
                L10n::key("Not every copy is kept: install the package wl-clipboard and start Korvane again."));
            co_return;
        }
        for (;;) {
            const double began = self->clock.uptime();
            co_await self->watchOnce();
            if (self->clock.uptime() - began < shortest)
                break;
            self->standing = Standing::beginning;
            co_await self->clock.sleep(untilNext);
        }
        self->giveUp(
            Standing::refused, L10n::key("New copies are not kept: this desktop does not let programs follow the clipboard."));
    }

    Task<void> findOffer()
    {
        if (offer.change != changes)
            offer = co_await presentOffer(clock.uptime() + seconds(patience));
    }

    Task<std::optional<std::string>> read(Form form, std::size_t limit)
    {
        const double deadline = clock.uptime() + seconds(patience);
        co_await findOffer();
        const Offer before = offer;
        if (before.change != changes || before.concealed)
            co_return std::nullopt;
        std::optional<std::string> text;
        for (const auto &source : pasteboardForms::sources(form, before.types)) {
            auto bytes = co_await paste({"--no-newline", "--type", source.type}, limit, deadline);
            if (!bytes)
                co_return std::nullopt; // too long for any form, perhaps
            text = pasteboardForms::decoded(source.writing, std::move(*bytes));
            if (text)
                break;
        }
        if (!text || text->size() > limit)
            co_return std::nullopt;
        co_await clock.sleep(quiet);
        const Offer after = co_await presentOffer(deadline + seconds(quiet));
        const bool same = after.change == before.change && after.types == before.types && !after.concealed;
        co_return same ? std::move(text) : std::nullopt;
    }

    std::int64_t changes = 0;
    Offer offer;
    Standing standing = Standing::beginning;
    std::function<void(const char *why)> lost = [](const char *) {};

private:
    static double seconds(Milliseconds time) { return static_cast<double>(time.count()) / 1000; }

    void giveUp(Standing end, const char *why)
    {
        standing = end;
        AppLog::app.error(end == Standing::missing ? "The clipboard is not followed: there is no wl-paste."
                                                   : "The clipboard is not followed: the desktop does not let wl-paste watch.");
        lost(why);
    }

    ChildProcess::Options options(Strings arguments) const
    {
        arguments.insert(arguments.begin(), program);
        return {.arguments = std::move(arguments), .environment = environment, .workingDirectory = "/"};
    }

    Task<std::optional<std::string>> paste(Strings arguments, std::size_t limit, double deadline)
    {
        const Milliseconds left(static_cast<int>((deadline - clock.uptime()) * 1000));
        co_return co_await outputOf(mainThread, pool, clock, options(std::move(arguments)), limit, left);
    }

    Task<Offer> presentOffer(double deadline)
    {
        Offer found{.change = changes};
        Strings question{"--list-types"};
        const auto list = co_await paste(std::move(question), longestList, deadline);
        if (!list)
            co_return found;
        found.types = lines(*list);
        if (std::ranges::find(found.types, pasteboardForms::hint) != found.types.end()) {
            Strings hint{"--no-newline", "--type", pasteboardForms::hint};
            const auto content = co_await paste(std::move(hint), pasteboardForms::longestHint, deadline);
            found.concealed = pasteboardForms::conceals(content);
        }
        co_return found;
    }

    /// Follows until the program that does it ends.
    Task<void> watchOnce()
    {
        // It begins with what is there, and with nothing where nothing is.
        const Offer present = co_await presentOffer(clock.uptime() + seconds(patience));
        bool known = holdsText(present.types);
        // A content of another kind is not asked for: each change is also a transfer to the program that tells of it.
        Strings arguments{"--type", "text", "--watch", "echo"};
        const auto child = co_await BoundChild::start(pool, options(std::move(arguments)));
        if (!child)
            co_return;
        standing = Standing::following;
        std::array<char, 256> told;
        for (;;) {
            co_await waitUntilReadable(child->output());
            const auto count = ::read(child->output().get(), told.data(), told.size());
            if (count == 0 || (count < 0 && errno != EAGAIN && errno != EINTR))
                co_return;
            for (auto signs = count < 0 ? 0 : std::count(told.begin(), told.begin() + count, '\n'); signs > 0; --signs)
                if (!std::exchange(known, false))
                    ++changes;
        }
    }

    const Executor mainThread, pool;
    Clock &clock;
    const Strings environment;
};

WaylandPasteboardWatching::WaylandPasteboardWatching(
    Executor mainThread, Executor pool, Clock &clock, std::vector<std::string> environment) :
    session(std::make_shared<Session>(mainThread, std::move(pool), clock, std::move(environment)))
{
    session->lost = [this](const char *why) { obstacle = why; };
    Task<void> task = Session::watch(session);
    watching = spawn(std::move(mainThread), std::move(task));
}

WaylandPasteboardWatching::~WaylandPasteboardWatching()
{
    watching.cancel();
    session->lost = [](const char *) {};
}

std::int64_t WaylandPasteboardWatching::changeCount() const { return session->changes; }

WaylandPasteboardWatching::Standing WaylandPasteboardWatching::standing() const { return session->standing; }

Task<std::vector<std::string>> WaylandPasteboardWatching::types()
{
    const auto held = session;
    co_await held->findOffer();
    if (held->offer.change != held->changes)
        co_return Strings();
    Strings types = held->offer.types;
    if (held->offer.concealed)
        types.emplace_back(concealedType);
    co_return types;
}

Task<std::optional<std::string>> WaylandPasteboardWatching::string(Form form, std::size_t limit)
{
    const auto held = session;
    co_return co_await held->read(form, limit);
}

Task<bool> WaylandPasteboardWatching::mayHoldText()
{
    const auto held = session;
    co_await held->findOffer();
    const Offer &offer = held->offer;
    co_return offer.change != held->changes || offer.concealed || offer.types.empty() || holdsText(offer.types);
}

Task<std::optional<std::string>> WaylandPasteboardWatching::frontmostApplication() { co_return std::nullopt; }

} // namespace korvane
