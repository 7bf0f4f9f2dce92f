#include "Vorrel/Shell/L10n.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <optional>

namespace korvane {

namespace {

namespace fs = std::filesystem;

constexpr std::string_view bundleName = "Korvane_Vorrel.bundle";
constexpr std::string_view chineseName = "zh-hans";

// Readers take the pointer without a lock, so tables that were once in use are kept for good.
std::atomic<const L10n *> current{nullptr};

const L10n &tables()
{
    static const L10n none;
    const L10n *const used = current.load(std::memory_order_acquire);
    return used ? *used : none;
}

const std::string *find(const L10n::Table &table, std::string_view key)
{
    const auto entry = table.find(key);
    return entry == table.end() ? nullptr : &entry->second;
}

bool isFolder(const fs::path &path)
{
    std::error_code ignored;
    return fs::is_directory(path, ignored);
}

L10n::Table tableAt(const fs::path &path)
{
    std::ifstream file(path, std::ios::binary);
    if (!file)
        return {};
    return L10n::parse(std::string(std::istreambuf_iterator<char>(file), {}));
}

[[noreturn]] void stopWithoutBundle(const std::string &beside, const std::string &fixedAtBuild)
{
    std::fprintf(stderr, "could not load resource bundle: from %s or %s\n", beside.c_str(), fixedAtBuild.c_str());
    std::exit(EXIT_FAILURE);
}

fs::path bundleAmong(const L10n::Places &places)
{
    const fs::path beside = fs::path(places.beside) / bundleName;
    const fs::path fixedAtBuild = fs::path(places.fixedAtBuild) / bundleName;
    for (const auto &bundle : {fs::path(places.resources) / bundleName, beside, fixedAtBuild}) {
        if (isFolder(bundle))
            return bundle;
    }
    stopWithoutBundle(beside.string(), fixedAtBuild.string());
}

/// The folder of a language's tables: without one of its own, the bundle itself.
fs::path languageFolder(const fs::path &bundle, std::string_view language)
{
    const fs::path folder = bundle / (std::string(language) + ".lproj");
    return isFolder(folder) ? folder : bundle;
}

void appendUTF8(std::string &text, unsigned codePoint)
{
    const auto put = [&text](unsigned byte) { text.push_back(static_cast<char>(byte)); };
    if (codePoint < 0x80) {
        put(codePoint);
    } else if (codePoint < 0x800) {
        put(0xC0 | codePoint >> 6);
        put(0x80 | (codePoint & 0x3F));
    } else {
        put(0xE0 | codePoint >> 12);
        put(0x80 | (codePoint >> 6 & 0x3F));
        put(0x80 | (codePoint & 0x3F));
    }
}

/// Reads one table from its front to its end.
class StringsReader {
public:
    explicit StringsReader(std::string_view text) : rest(text)
    {
        if (rest.starts_with("\xEF\xBB\xBF"))
            rest.remove_prefix(3);
    }

    L10n::Table table()
    {
        L10n::Table table;
        while (skipBlanksAndComments()) {
            const std::string_view start = rest;
            if (auto found = entry()) {
                table.insert_or_assign(std::move(found->first), std::move(found->second));
            } else {
                rest = start;
                skipPast("\n");
            }
        }
        return table;
    }

private:
    void skip(std::string_view characters) { rest.remove_prefix(std::min(rest.find_first_not_of(characters), rest.size())); }

    void skipPast(std::string_view mark)
    {
        const auto at = rest.find(mark);
        rest.remove_prefix(at == std::string_view::npos ? rest.size() : at + mark.size());
    }

    /// False at the end of the text.
    bool skipBlanksAndComments()
    {
        for (;;) {
            skip(" \t\r\n");
            if (rest.starts_with("//")) {
                skipPast("\n");
            } else if (rest.starts_with("/*")) {
                rest.remove_prefix(2);
                skipPast("*/");
            } else {
                return !rest.empty();
            }
        }
    }

    bool take(char expected)
    {
        skip(" \t");
        if (!rest.starts_with(expected))
            return false;
        rest.remove_prefix(1);
        return true;
    }

    std::optional<std::pair<std::string, std::string>> entry()
    {
        auto key = quoted();
        if (!key || !take('='))
            return std::nullopt;
        auto value = quoted();
        if (!value || !take(';'))
            return std::nullopt;
        return std::pair(std::move(*key), std::move(*value));
    }

    std::optional<std::string> quoted()
    {
        if (!take('"'))
            return std::nullopt;
        std::string text;
        while (!rest.empty() && rest.front() != '\n') {
            const char next = rest.front();
            rest.remove_prefix(1);
            if (next == '"')
                return text;
            if (next != '\\')
                text.push_back(next);
            else if (!escaped(text))
                return std::nullopt;
        }
        return std::nullopt;
    }

    bool escaped(std::string &text)
    {
        if (rest.empty() || rest.front() == '\n')
            return false;
        const char next = rest.front();
        rest.remove_prefix(1);
        switch (next) {
        case 'n': text.push_back('\n'); return true;
        case 't': text.push_back('\t'); return true;
        case 'r': text.push_back('\r'); return true;
        case 'U':
        case 'u': return codePoint(text);
        default: text.push_back(next); return true;
        }
    }

    bool codePoint(std::string &text)
    {
        constexpr std::string_view digits = "0123456789abcdefABCDEF";
        const std::string hex(rest.substr(0, 4));
        if (hex.size() != 4 || hex.find_first_not_of(digits) != std::string::npos)
            return false;
        rest.remove_prefix(4);
        appendUTF8(text, static_cast<unsigned>(std::stoul(hex, nullptr, 16)));
        return true;
    }

    std::string_view rest;
};

} // namespace

L10n L10n::load(const Places &places)
{
    const fs::path bundle = bundleAmong(places);
    const fs::path folder = languageFolder(bundle, languageFor(places.languages));
    L10n loaded;
    loaded.name = languageFor(places.languages);
    loaded._language = tableAt(folder / "Localizable.strings");
    loaded._chinese = tableAt(bundle / (std::string(chineseName) + ".lproj") / "Localizable.strings");
    if (!places.platform.empty())
        loaded._platform = tableAt(folder / ("Platform-" + places.platform + ".strings"));
    return loaded;
}

void L10n::use(L10n tables)
{
    static std::mutex mutex;
    static std::vector<std::unique_ptr<const L10n>> kept;
    const std::lock_guard lock(mutex);
    kept.push_back(std::make_unique<const L10n>(std::move(tables)));
    current.store(kept.back().get(), std::memory_order_release);
}

std::string L10n::text(std::string_view key)
{
    const std::string *const known = find(tables()._language, key);
    return known ? *known : std::string(key);
}

std::string L10n::shown(std::string_view key)
{
    const std::string *const known = find(tables()._platform, key);
    return known ? *known : text(key);
}

std::string L10n::simplifiedChinese(std::string_view key)
{
    const std::string *const known = find(tables()._chinese, key);
    return known ? *known : std::string(key);
}

std::string L10n::format(std::string_view format, std::initializer_list<std::string_view> values)
{
    std::string whole = text(format);
    std::size_t from = 0; // what a value brings in is not looked at
    for (const std::string_view value : values) {
        const auto at = std::min(whole.find("%@", from), whole.find("%lld", from));
        if (at == std::string::npos)
            break;
        whole.replace(at, whole[at + 1] == '@' ? 2 : 4, value);
        from = at + value.size();
    }
    return whole;
}

std::string L10n::languageInUse() { return tables().name; }

std::string L10n::languageFor(const std::vector<std::string> &preferredLanguages)
{
    const bool chinese = !preferredLanguages.empty() && preferredLanguages.front().starts_with("zh");
    return chinese ? std::string(chineseName) : "en";
}

L10n::Table L10n::parse(std::string_view strings) { return StringsReader(strings).table(); }

} // namespace korvane
