#include "bench/IndexTrees.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <random>
#include <stdexcept>
#include <sys/stat.h>
#include <unistd.h>
#include <unordered_set>

namespace korvane::bench {

namespace {

constexpr double shareOfLargeRoot = 0.938;
constexpr double shareOfFolders = 0.0725;
constexpr double firstDay = 1'420'000'000, lastDay = 1'760'000'000; ///< 2015 to 2025, in seconds since 1970.
constexpr int usualDepth = 7; ///< One folder in some goes deeper.

constexpr std::array words{"account", "agenda", "album", "analysis", "annual", "archive", "article", "assets", "audit", "backup",
    "balance", "banner", "basic", "batch", "bench", "bill", "board", "book", "branch", "brief", "budget", "calendar", "canvas",
    "card", "catalog", "chapter", "chart", "check", "client", "code", "comment", "common", "concept", "config", "contact",
    "content", "contract", "copy", "core", "course", "cover", "custom", "daily", "dash", "data", "default", "demo", "design",
    "detail", "device", "diagram", "draft", "edit", "engine", "entry", "error", "event", "example", "export", "extra", "family",
    "field", "figure", "final", "font", "form", "garden", "guide", "handler", "health", "helper", "history", "holiday", "house",
    "icon", "image", "import", "index", "insurance", "invoice", "item", "journal", "kitchen", "label", "layout", "lecture",
    "letter", "library", "list", "local", "log", "logo", "main", "manager", "manual", "map", "master", "meeting", "memo", "menu",
    "method", "minutes", "mobile", "model", "module", "music", "network", "note", "object", "offer", "office", "old", "option",
    "order", "outline", "package", "page", "paper", "parser", "party", "plan", "plugin", "poster", "private", "process",
    "profile", "project", "protocol", "query", "receipt", "record", "recipe", "report", "request", "result", "review", "route",
    "sample", "scan", "schedule", "school", "screen", "script", "secret", "section", "server", "service", "session", "setup",
    "shared", "sheet", "sketch", "slide", "source", "spec", "start", "state", "status", "store", "story", "style", "summary",
    "survey", "system", "table", "tax", "team", "template", "test", "theme", "thesis", "ticket", "title", "tool", "tour",
    "travel", "tree", "update", "user", "utils", "vector", "version", "video", "view", "visit", "web", "wedding", "widget",
    "window", "work", "year"};

constexpr std::array folderWords{"src", "lib", "include", "docs", "tests", "images", "fonts", "bin", "share", "icons", "locale",
    "Documents", "Pictures", "Music", "Videos", "Downloads", "Projects", "Work", "Archive", "Private", "2019", "2020", "2021",
    "2022", "2023", "2024", "en", "de", "fr", "zh_CN", "v1", "v2", "internal", "vendor", "static", "public", "components",
    "pages"};
/// Folders of builds and caches: much in them, little of it looked for.
constexpr std::array noisyFolders{"node_modules", ".git", "build", "target", "__pycache__", "dist", ".cache-data", "venv"};

constexpr std::array codeExtensions{"js", "ts", "py", "c", "h", "cpp", "rs", "go", "java", "json", "map", "css", "html", "yaml"};
constexpr std::array officeExtensions{"pdf", "docx", "xlsx", "odt", "txt", "md", "csv", "pptx", "tex", "rtf"};
constexpr std::array mediaExtensions{"jpg", "JPG", "png", "mp4", "mp3", "flac", "svg", "gif", "webp", "mov"};

/// The machine's own distributions differ from one library to the next; these do not.
class Dice {
public:
    explicit Dice(std::uint64_t seed) : engine(seed) { }
    std::size_t below(std::size_t limit) { return std::size_t(engine() % limit); }
    double share() { return double(engine() >> 11) / double(1ULL << 53); }
    bool oneIn(double count) { return share() * count < 1; }
    template <class List> const char *of(const List &list) { return list[below(list.size())]; }

private:
    std::mt19937_64 engine;
};

std::string number(const char *format, std::size_t value)
{
    char text[32];
    std::snprintf(text, sizeof text, format, value);
    return text;
}

std::string date(Dice &dice, const char *separator)
{
    return number("%04zu", 2015 + dice.below(11)) + separator + number("%02zu", 1 + dice.below(12)) + separator
        + number("%02zu", 1 + dice.below(28));
}

std::string hash(Dice &dice, std::size_t digits)
{
    std::string text;
    while (text.size() < digits)
        text += "0123456789abcdef"[dice.below(16)];
    return text;
}

/// Which planted term, if any, each file's name holds, in the order in which they are made.
class Plants {
public:
    Plants(std::size_t rows, Dice &dice) : files(std::size_t(double(rows) * (1 - shareOfFolders)))
    {
        double from = 0;
        for (const auto &term : plantedTerms) {
            if (term.matches < 1)
                from = addShare(term, from);
            else
                plantExactly(term, dice);
        }
    }

    const char *next(Dice &dice)
    {
        const std::size_t file = made++;
        const auto exact =
            std::lower_bound(chosen.begin(), chosen.end(), file, [](const auto &one, auto at) { return one.first < at; });
        if (exact != chosen.end() && exact->first == file)
            return exact->second;
        const double share = dice.share();
        for (const auto &term : shares)
            if (share >= term.from && share < term.to)
                return term.text;
        return nullptr;
    }

private:
    struct Share {
        const char *text;
        double from, to;
    };
    double addShare(const PlantedTerm &term, double from)
    {
        const double to = from + term.matches / (1 - shareOfFolders);
        shares.push_back({term.text, from, to});
        return to;
    }
    void plantExactly(const PlantedTerm &term, Dice &dice)
    {
        const auto wanted = std::min(std::size_t(term.matches), files / 5);
        std::unordered_set<std::size_t> mine;
        while (mine.size() < wanted)
            if (const auto file = dice.below(files); taken.insert(file).second)
                mine.insert(file);
        for (const auto file : mine)
            chosen.emplace_back(file, term.text);
        std::sort(chosen.begin(), chosen.end());
    }

    std::size_t files, made = 0;
    std::unordered_set<std::size_t> taken;
    std::vector<std::pair<std::size_t, const char *>> chosen; // by file
    std::vector<Share> shares;
};

struct Folder {
    std::string path;
    int depth;
    bool noisy;
};

class Maker {
public:
    Maker(std::size_t rows, std::uint64_t seed) : dice(seed), plants(rows, dice) { }

    void addRoot(Listing &listing, const std::string &root, std::size_t rows)
    {
        const auto folders = makeFolders(root, std::max<std::size_t>(1, std::size_t(double(rows) * shareOfFolders)));
        std::size_t left = rows - (folders.size() - 1);
        for (std::size_t i = 0; i < folders.size(); ++i) {
            if (i > 0)
                listing.files.push_back(row(folders[i].path, true));
            const std::size_t mine = i + 1 == folders.size() ? left : std::min(left, filesIn(folders.size() - i, left));
            left -= mine;
            addFiles(listing, folders[i], mine);
        }
    }

    std::string fileName(bool noisy)
    {
        if (const char *planted = plants.next(dice))
            return plantedName(planted);
        return noisy ? noisyName() : ordinaryName();
    }

    IndexedFile row(std::string path, bool folder)
    {
        const double size = std::exp(4 + 10 * dice.share());
        const double modified = firstDay + (lastDay - firstDay) * std::sqrt(dice.share());
        auto name = lastPathComponent(path);
        return {std::move(path), std::move(name), folder, folder ? 4096 : static_cast<long long>(size), modified};
    }

private:
    std::vector<Folder> makeFolders(const std::string &root, std::size_t count)
    {
        std::vector<Folder> folders{{root, 0, false}};
        std::unordered_set<std::string> taken;
        while (folders.size() <= count) {
            // Mostly near the latest ones: what was unpacked or checked out together lies together.
            const std::size_t newest = std::min<std::size_t>(folders.size(), 400);
            const std::size_t parent = dice.oneIn(1.4) ? dice.below(folders.size()) : folders.size() - 1 - dice.below(newest);
            if (folders[parent].depth >= usualDepth && !dice.oneIn(20))
                continue;
            const bool startsNoise = dice.oneIn(12);
            const std::string name = startsNoise ? dice.of(noisyFolders) : folderName(folders[parent].noisy);
            std::string path = folders[parent].path + "/" + name;
            if (taken.insert(path).second)
                folders.push_back({std::move(path), folders[parent].depth + 1, folders[parent].noisy || startsNoise});
        }
        // In byte order of paths a folder comes before what is in it.
        std::sort(folders.begin() + 1, folders.end(), [](const auto &a, const auto &b) { return a.path < b.path; });
        return folders;
    }

    std::string folderName(bool noisy)
    {
        if (noisy && dice.oneIn(5))
            return hash(dice, 2);
        if (dice.oneIn(6))
            return date(dice, "-");
        if (dice.oneIn(2))
            return dice.of(folderWords);
        return std::string(dice.of(words)) + (dice.oneIn(3) ? "-" + std::string(dice.of(words)) : "");
    }

    /// Few in most folders, many in some.
    std::size_t filesIn(std::size_t foldersLeft, std::size_t filesLeft)
    {
        const double mean = double(filesLeft) / double(foldersLeft);
        return std::size_t(-mean * std::log(1 - dice.share()) + 0.5);
    }

    void addFiles(Listing &listing, const Folder &folder, std::size_t count)
    {
        std::unordered_set<std::string> names;
        for (std::size_t i = 0; i < count; ++i) {
            std::string name = fileName(folder.noisy);
            for (std::size_t again = 2; !names.insert(name).second; ++again)
                name = std::to_string(again) + "-" + name;
            listing.files.push_back(row(folder.path + "/" + name, false));
        }
    }

    std::string extension()
    {
        const double kind = dice.share();
        return std::string(".")
            + (kind < 0.5         ? dice.of(codeExtensions)
                    : kind < 0.75 ? dice.of(officeExtensions)
                                  : dice.of(mediaExtensions));
    }

    std::string plantedName(const std::string &word)
    {
        std::string name = word;
        if (dice.oneIn(3))
            name[0] = char(std::toupper(name[0]));
        if (dice.oneIn(2))
            name = dice.of(words) + std::string("-") + name;
        return name + (dice.oneIn(2) ? "_" + number("%zu", dice.below(10'000)) : std::string()) + extension();
    }

    std::string ordinaryName()
    {
        switch (dice.below(8)) {
        case 0: return "IMG_" + date(dice, "") + "_" + number("%06zu", dice.below(240'000)) + ".jpg";
        case 1: return "DSC" + number("%05zu", dice.below(100'000)) + ".JPG";
        case 2: return date(dice, "-") + " " + dice.of(words) + extension();
        case 3:
            return std::string(dice.of(words)) + "-v" + number("%zu", dice.below(9)) + "." + number("%zu", dice.below(30))
                + extension();
        default: return std::string(dice.of(words)) + (dice.oneIn(2) ? "_" : "") + dice.of(words) + extension();
        }
    }

    std::string noisyName()
    {
        switch (dice.below(5)) {
        case 0: return hash(dice, 38);
        case 1: return "chunk." + hash(dice, 8) + ".js";
        case 2: return std::string(dice.of(words)) + ".o";
        case 3: return "index" + extension();
        default: return std::string(dice.of(words)) + "." + dice.of(words) + extension();
        }
    }

    Dice dice;
    Plants plants;
};

void require(bool good, const std::string &what)
{
    if (!good)
        throw std::runtime_error(what + ": " + std::strerror(errno));
}

/// The folder that was written to last, open: rows of one folder follow each other.
class OpenFolder {
public:
    ~OpenFolder() { close(); }
    int of(const std::string &path)
    {
        if (path != present) {
            close();
            descriptor = open(path.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC);
            require(descriptor >= 0, path);
            present = path;
        }
        return descriptor;
    }

private:
    void close() const
    {
        if (descriptor >= 0)
            ::close(descriptor);
    }
    int descriptor = -1;
    std::string present;
};

} // namespace

std::size_t Listing::count(const std::vector<std::string> &texts) const
{
    return std::size_t(std::count_if(files.begin(), files.end(), [&texts](const IndexedFile &file) {
        return std::all_of(
            texts.begin(), texts.end(), [&file](const std::string &text) { return strcasestr(file.name.c_str(), text.c_str()); });
    }));
}

std::size_t Listing::folders() const
{
    return std::size_t(std::count_if(files.begin(), files.end(), [](const IndexedFile &file) { return file.isDirectory; }));
}

double Listing::meanPath() const
{
    double bytes = 0;
    for (const auto &file : files)
        bytes += double(file.path.size());
    return bytes / double(files.size());
}

Listing makeListing(std::size_t rows, std::uint64_t seed, std::string largeRoot, std::string smallRoot)
{
    Maker maker(rows, seed);
    Listing listing{std::move(largeRoot), std::move(smallRoot), {}};
    listing.files.reserve(rows);
    listing.rowsOfLargeRoot = std::size_t(double(rows) * shareOfLargeRoot);
    maker.addRoot(listing, listing.largeRoot, listing.rowsOfLargeRoot);
    maker.addRoot(listing, listing.smallRoot, rows - listing.rowsOfLargeRoot);
    return listing;
}

void changeOneIn(Listing &listing, double count, std::uint64_t seed)
{
    Maker maker(listing.files.size(), seed);
    Dice dice(seed);
    for (auto &file : listing.files) {
        if (file.isDirectory || !dice.oneIn(count))
            continue;
        if (dice.oneIn(5)) { // one goes and another comes beside it
            const std::string name = "renewed " + file.name;
            file = maker.row(deletingLastPathComponent(file.path) + "/" + name, false);
        } else {
            file.size += 1;
            file.modified += 86'400;
        }
    }
}

void makeOnDisk(const Listing &listing)
{
    std::filesystem::create_directories(listing.largeRoot);
    std::filesystem::create_directories(listing.smallRoot);
    OpenFolder open;
    for (const auto &file : listing.files) {
        const int folder = open.of(deletingLastPathComponent(file.path));
        if (file.isDirectory) {
            require(mkdirat(folder, file.name.c_str(), 0755) == 0, file.path);
            continue;
        }
        const int made = openat(folder, file.name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
        require(made >= 0, file.path);
        const bool sized = ftruncate(made, off_t(file.size)) == 0;
        ::close(made);
        require(sized, file.path);
    }
}

} // namespace korvane::bench
