#include "Vorrel/Platform/Linux/PasteboardForms.h"

#include "Support/Text.h"

#include <algorithm>
#include <array>

namespace korvane::pasteboardForms {

namespace {

// STRING stands before the last, which leaves open what its letters are written in.
constexpr std::array texts{Source{"UTF8_STRING", Writing::utf8}, Source{"text/plain;charset=utf-8", Writing::utf8},
    Source{"STRING", Writing::latin1}, Source{"text/plain", Writing::utf8}};
// The list is the one that every desktop agrees on; the other two are a browser's own, for links that are dragged or copied.
constexpr std::array addresses{Source{"text/uri-list", Writing::addressList}, Source{"_NETSCAPE_URL", Writing::addressAndTitle},
    Source{"text/x-moz-url", Writing::wideAddressAndTitle}};

bool offers(const std::vector<std::string> &offered, const char *type)
{
    return std::ranges::find(offered, type) != offered.end();
}

void append(std::string &text, char32_t letter)
{
    const auto tail = [&](int shift) { text += static_cast<char>(0x80 | (letter >> shift & 0x3F)); };
    if (letter < 0x80) {
        text += static_cast<char>(letter);
    } else if (letter < 0x800) {
        text += static_cast<char>(0xC0 | letter >> 6);
        tail(0);
    } else if (letter < 0x10000) {
        text += static_cast<char>(0xE0 | letter >> 12);
        tail(6), tail(0);
    } else {
        text += static_cast<char>(0xF0 | letter >> 18);
        tail(12), tail(6), tail(0);
    }
}

std::string fromLatin1(std::string_view bytes)
{
    std::string text;
    for (const unsigned char byte : bytes)
        append(text, byte);
    return text;
}

/// A half of a pair without its other half comes out as what is no UTF-8.
std::string fromUTF16(std::string_view bytes)
{
    const auto unit = [&](std::size_t at) {
        return static_cast<char32_t>(static_cast<unsigned char>(bytes[at]) | static_cast<unsigned char>(bytes[at + 1]) << 8);
    };
    std::string text;
    for (std::size_t at = 0; at + 1 < bytes.size(); at += 2) {
        char32_t letter = unit(at);
        const bool pair = letter >= 0xD800 && letter < 0xDC00 && at + 3 < bytes.size() && (unit(at + 2) & 0xFC00) == 0xDC00;
        if (pair) {
            letter = 0x10000 + ((letter - 0xD800) << 10) + (unit(at + 2) - 0xDC00);
            at += 2;
        }
        append(text, letter);
    }
    return text;
}

std::string firstLine(std::string_view text) { return std::string(trimmed(text.substr(0, text.find_first_of("\r\n")))); }

/// The one address of a list; nothing of a longer one.
std::string onlyAddress(std::string_view list)
{
    std::string found;
    while (!list.empty()) {
        const auto end = list.find('\n');
        std::string line = firstLine(list.substr(0, end));
        list = end == std::string_view::npos ? std::string_view{} : list.substr(end + 1);
        if (line.empty() || line.starts_with('#'))
            continue;
        if (!found.empty())
            return {};
        found = std::move(line);
    }
    return found;
}

bool namesFile(std::string_view address)
{
    constexpr std::string_view scheme = "file:";
    return std::ranges::equal(
        address.substr(0, scheme.size()), scheme, [](char left, char right) { return (left | 0x20) == (right | 0x20); });
}

std::optional<std::string> address(std::string found)
{
    if (found.empty() || namesFile(found) || !isValidUTF8(found))
        return std::nullopt;
    return found;
}

} // namespace

std::vector<Source> sources(PasteboardWatching::Form form, const std::vector<std::string> &offered)
{
    std::vector<Source> found;
    for (const Source &source : texts)
        if (offers(offered, source.type))
            found.push_back(source);
    if (form == PasteboardWatching::Form::text)
        return found;
    if (!found.empty())
        return {};
    for (const Source &source : addresses)
        if (offers(offered, source.type))
            found.push_back(source);
    return found;
}

std::optional<std::string> decoded(Writing writing, std::string bytes)
{
    switch (writing) {
    case Writing::addressList: return address(onlyAddress(bytes));
    case Writing::addressAndTitle: return address(firstLine(bytes));
    case Writing::wideAddressAndTitle: return address(firstLine(fromUTF16(bytes)));
    case Writing::latin1: bytes = fromLatin1(bytes); break;
    case Writing::utf8: break;
    }
    // Some programs count the end of their own string as a part of it.
    while (bytes.ends_with('\0'))
        bytes.pop_back();
    if (!isValidUTF8(bytes))
        return std::nullopt;
    return bytes;
}

bool conceals(const std::optional<std::string> &hintContent)
{
    if (!hintContent)
        return true;
    const std::string_view content(hintContent->c_str());
    return trimmed(content) == "secret";
}

} // namespace korvane::pasteboardForms
