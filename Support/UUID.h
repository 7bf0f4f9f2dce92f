#pragma once

#include <string>

namespace korvane {

/// A random (version 4, RFC 4122) identifier as 36 characters in upper case. Any thread.
std::string newUUID();

} // namespace korvane
