#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace korvane {

/// What the program asks of an address.
struct URLParts {
    std::string scheme; ///< In lower case.
    std::string host; ///< Empty where there is none.
};

/// The parts of a text that as a whole is an absolute URL (RFC 3986) or IRI (RFC 3987: letters beyond ASCII as they are),
/// also with braces, bars, carets and grave accents, which browsers accept.
/// Nothing for any other text, one with blanks or line ends included. Any thread.
std::optional<URLParts> parsedURL(std::string_view text);

} // namespace korvane
