#include "Vorrel/Platform/Linux/PasteboardForms.h"

#include <gtest/gtest.h>

using namespace korvane;
using namespace korvane::pasteboardForms;
using Form = PasteboardWatching::Form;
using Strings = std::vector<std::string>;

namespace {

Strings asked(Form form, const Strings &offered)
{
    Strings types;
    for (const Source &source : sources(form, offered))
        types.emplace_back(source.type);
    return types;
}

} // namespace

TEST(PasteboardForms, TheFormThatSaysItIsUnicodeIsAskedForFirst)
{
    EXPECT_EQ(asked(Form::text, {"text/plain", "STRING", "image/png", "text/plain;charset=utf-8", "UTF8_STRING"}),
        (Strings{"UTF8_STRING", "text/plain;charset=utf-8", "STRING", "text/plain"}));
    EXPECT_TRUE(asked(Form::text, {"text/html", "text/uri-list", "image/png"}).empty());
}

TEST(PasteboardForms, AnAddressIsAskedForOnlyWhereThereIsNoText)
{
    EXPECT_EQ(asked(Form::url, {"text/x-moz-url", "_NETSCAPE_URL", "text/uri-list"}),
        (Strings{"text/uri-list", "_NETSCAPE_URL", "text/x-moz-url"}));
    EXPECT_TRUE(asked(Form::url, {"text/uri-list", "STRING"}).empty());
}

TEST(PasteboardForms, BytesBecomeTextByTheirWriting)
{
    using namespace std::string_literals;
    const struct {
        const char *why;
        Writing writing;
        std::string bytes;
        std::optional<std::string> text;
    } cases[] = {
        {"as it is", Writing::utf8, "a\nb", "a\nb"},
        {"the end of a string of C is no part of it", Writing::utf8, "abc\0"s, "abc"},
        {"no UTF-8", Writing::utf8, "\xC3", std::nullopt},
        {"Latin-1 knows every byte", Writing::latin1, "\xE9\x80", "é\xC2\x80"},
        {"a comment is no address", Writing::addressList, "#x\r\nhttps://a.example\r\n", "https://a.example"},
        {"several are a list", Writing::addressList, "https://a.example\nhttps://b.example", std::nullopt},
        {"an empty list", Writing::addressList, "\r\n#x\r\n", std::nullopt},
        {"a file, whatever the case", Writing::addressList, "FILE:///a", std::nullopt},
        {"its title is left out", Writing::addressAndTitle, "https://a.example\nTitle", "https://a.example"},
        {"wide letters, a pair among them", Writing::wideAddressAndTitle, "a\0\x3D\xD8\x00\xDE\n\0"s, "a😀"},
        {"half a pair", Writing::wideAddressAndTitle, "a\0\x3D\xD8"s, std::nullopt},
        {"half a letter at the end is dropped", Writing::wideAddressAndTitle, "a\0b"s, "a"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_EQ(decoded(c.writing, c.bytes), c.text);
    }
}

TEST(PasteboardForms, OnlyAReadableOtherWordIsNoSecret)
{
    EXPECT_TRUE(conceals("secret"));
    EXPECT_TRUE(conceals(std::string("secret\0", 7)));
    EXPECT_TRUE(conceals("secret\n"));
    EXPECT_TRUE(conceals(std::nullopt));
    EXPECT_FALSE(conceals("public"));
    EXPECT_FALSE(conceals(""));
}
