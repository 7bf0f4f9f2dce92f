#pragma once

#include <string>
#include <string_view>

namespace korvane {

/// Bytes as text (RFC 4648, section 4: the plain alphabet, padded). Any thread.
std::string base64(std::string_view bytes);

} // namespace korvane
