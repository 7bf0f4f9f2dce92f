#include "Support/Base64.h"

#include <gtest/gtest.h>

using namespace korvane;

TEST(Base64Test, WritesTheKnownVectors)
{
    const struct {
        const char *why;
        std::string bytes, text;
    } cases[] = {
        {"nothing", "", ""},
        {"one byte takes two signs of padding", "f", "Zg=="},
        {"two bytes take one", "fo", "Zm8="},
        {"three take none", "foo", "Zm9v"},
        {"more than one group", "foobar", "Zm9vYmFy"},
        {"bytes beyond ASCII and a NUL", std::string("\0\xff\xfe\xfb", 4), "AP/++w=="},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_EQ(base64(c.bytes), c.text);
    }
}
