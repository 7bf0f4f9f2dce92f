#pragma once

#include "Vorrel/Platform/PasteboardWatching.h"

#include <span>
#include <string_view>

/// What the forms of an X11 or Wayland clipboard mean. Pure functions; any thread.
namespace korvane::pasteboardForms {

/// How the bytes of a form are written.
enum class Writing {
    utf8,
    latin1,
    addressList, ///< "text/uri-list": one a line, comments between.
    addressAndTitle, ///< UTF-8, the address on the first line.
    wideAddressAndTitle, ///< The same in UTF-16 of the little end.
};

struct Source {
    const char *type; ///< As it is offered.
    Writing writing;
};

/// The form by which password managers mark what shall not be kept, by the content "secret".
constexpr const char *hint = "x-kde-passwordManagerHint";
constexpr std::size_t longestHint = 64; ///< Bytes.

/// What to ask for, the best first. No address where there is a text: then the text is what was copied.
std::vector<Source> sources(PasteboardWatching::Form form, const std::vector<std::string> &offered);

/// The text in bytes of a form. Nothing for what is not written so, for several addresses, and for the address of a file:
/// files are not kept.
std::optional<std::string> decoded(Writing writing, std::string bytes);

/// Whether the hint marks its content as secret; one that cannot be read does.
bool conceals(const std::optional<std::string> &hintContent);

} // namespace korvane::pasteboardForms
