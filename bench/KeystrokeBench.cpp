// One keystroke in the palette's field, from the change of the query to the published list, beside a plain loop of
// case-insensitive searches over the same titles and keywords in the same run.
//
// Ends with 1 when a keystroke takes more than four times the plain loop, or grows faster than the number of commands.
#include "bench/Catalogue.h"
#include "bench/Table.h"
#include "tests/support/TestPalette.h"

#include <array>
#include <cstring>
#include <ctime>

using namespace korvane;
using namespace korvane::bench;

namespace {

constexpr double ratioLimit = 4;
/// What lies in a nearer cache when there is less of it makes a small list cheaper, row for row.
constexpr double growthLimit = 1.5;
constexpr std::array<std::size_t, 3> sizes{500, 5'000, 50'000};

struct Keystroke {
    const char *matches;
    const char *before; ///< What stands in the field before the measured change.
    const char *query;
};

constexpr Keystroke keystrokes[] = {
    {"all, empty query", "e", ""},
    {"all, one letter", "", "e"},
    {"many, two letters", "e", "ed"},
    {"many, a word", "edito", "editor"},
    {"one", "zephy", "zephyr"},
    {"none", "qx", "qxv"},
};

/// The thread's own time: all of it happens on one thread and waits for nothing, and what else runs on the machine
/// does not count.
double now()
{
    timespec time;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return double(time.tv_sec) * 1e6 + double(time.tv_nsec) / 1e3;
}

double microseconds(const std::function<void()> &work)
{
    const double begin = now();
    work();
    return now() - begin;
}

/// How many commands have the text in their title or a keyword. Every text is looked at, as a ranking must.
__attribute__((noinline)) std::size_t plainSearch(const std::vector<NamedCommand> &commands, const char *query)
{
    std::size_t matches = 0;
    for (const NamedCommand &command : commands) {
        bool found = strcasestr(command.title.c_str(), query) != nullptr;
        for (const std::string &keyword : command.keywords)
            found |= strcasestr(keyword.c_str(), query) != nullptr;
        matches += found;
    }
    return matches;
}

/// The same loop, made of the standard library's search and a table of lower-case letters.
__attribute__((noinline)) std::size_t tableSearch(const std::vector<NamedCommand> &commands, std::string_view query)
{
    static const auto lower = [] {
        std::array<unsigned char, 256> table;
        for (int i = 0; i < 256; ++i)
            table[std::size_t(i)] = static_cast<unsigned char>(i >= 'A' && i <= 'Z' ? i + 32 : i);
        return table;
    }();
    const auto same = [](unsigned char left, unsigned char right) { return lower[left] == lower[right]; };
    const auto contains = [&](const std::string &text) {
        return query.empty() || std::search(text.begin(), text.end(), query.begin(), query.end(), same) != text.end();
    };
    std::size_t matches = 0;
    for (const NamedCommand &command : commands) {
        bool found = contains(command.title);
        for (const std::string &keyword : command.keywords)
            found |= contains(keyword);
        matches += found;
    }
    return matches;
}

/// A palette that holds the commands; every tenth of them has been used when `used` is set.
class Palette {
public:
    Palette(const std::vector<NamedCommand> &commands, bool used)
    {
        CommandRegistry::Commands family;
        for (std::size_t i = 0; i < commands.size(); ++i) {
            const std::string id = "bench:/usr/share/applications/" + std::to_string(i);
            if (used && i % 10 == 0)
                palette.used(id, 1 + int(i / 10 % 3), double(i % 14));
            family.push_back(command(id, commands[i], i));
        }
        palette.start();
        palette.state->registry.replace("bench:", family);
        subscriptions = palette.state->observe([this] { ++published; });
    }

    /// From the change of the text to the list; the text before it is set unmeasured.
    double keystroke(const Keystroke &one)
    {
        palette.type(one.before);
        const std::string text = one.query;
        return microseconds([&] { palette.state->setQuery(text); });
    }

    std::size_t rows() const { return palette.state->results().size(); }
    std::size_t published = 0;

private:
    static std::shared_ptr<const Command> command(const std::string &id, const NamedCommand &named, std::size_t index)
    {
        constexpr std::array kinds{ResultKind::application, ResultKind::application, ResultKind::command, ResultKind::shortcut};
        return std::make_shared<StaticCommand>(CommandResultFields{
            .id = id,
            .title = named.title,
            .keywords = {named.keywords.begin(), named.keywords.end()},
            .kind = kinds[index % kinds.size()],
            .actions = {{.id = "open", .title = "Open"}},
        });
    }

    test::TestPalette palette;
    std::vector<Subscription> subscriptions;
};

struct Result {
    double palette, plain; ///< Microseconds, medians.
    double ratio() const { return palette / plain; }
};

Result measure(Palette &palette, const std::vector<NamedCommand> &commands, const Keystroke &one)
{
    const std::size_t repetitions = std::clamp<std::size_t>(1'000'000 / commands.size(), 41, 1001);
    std::vector<double> keystroke, libc, table;
    std::size_t matches = 0;
    for (std::size_t i = 0; i < repetitions; ++i) {
        keystroke.push_back(palette.keystroke(one));
        libc.push_back(microseconds([&] { matches = plainSearch(commands, one.query); }));
        table.push_back(microseconds([&] { matches = tableSearch(commands, one.query); }));
    }
    if (palette.published == 0 || palette.rows() < std::min<std::size_t>(matches, 60) || (matches == 0 && palette.rows() > 0)) {
        std::fprintf(stderr, "%s: %zu commands match, but the list has %zu rows\n", one.matches, matches, palette.rows());
        std::exit(2);
    }
    return {median(keystroke), std::min(median(libc), median(table))};
}

} // namespace

int main()
{
    bool kept = true;
    Table table({"Query matches", "Used", "Commands", "Keystroke ms", "Plain loop ms", "Ratio", "ns a command", "Growth"});
    for (const bool used : {false, true}) {
        std::vector<std::array<Result, std::size(keystrokes)>> results;
        for (const std::size_t size : sizes) {
            const auto commands = catalogue(size);
            Palette palette(commands, used);
            auto &row = results.emplace_back();
            for (std::size_t i = 0; i < std::size(keystrokes); ++i)
                row[i] = measure(palette, commands, keystrokes[i]);
        }
        for (std::size_t i = 0; i < std::size(keystrokes); ++i) {
            for (std::size_t s = 0; s < sizes.size(); ++s) {
                const Result &one = results[s][i];
                const double each = one.palette / double(sizes[s]);
                const double growth = s == 0 ? 1 : each / (results[s - 1][i].palette / double(sizes[s - 1]));
                kept = kept && one.ratio() <= ratioLimit && growth <= growthLimit;
                table.add({keystrokes[i].matches, used ? "1 in 10" : "none", std::to_string(sizes[s]),
                    number(one.palette / 1000, 3), number(one.plain / 1000, 3), number(one.ratio(), 2), number(each * 1000, 0),
                    s == 0 ? "" : number(growth, 2)});
            }
        }
    }
    table.print();
    std::printf("\nLimits: ratio %.0f, growth of the time a command %.1f from one size to the next: %s\n", ratioLimit,
        growthLimit, kept ? "kept" : "EXCEEDED");
    return kept ? 0 : 1;
}
