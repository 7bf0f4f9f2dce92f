#pragma once

#include <string>

namespace korvane {

/// Gives memory that is free back to the system, where the allocator can. Takes some milliseconds for each hundred MiB;
/// any thread.
void returnFreeMemory();

/// Overwrites a secret with zeros, also where the compiler sees no further use of it, and empties it. Any thread.
void wipe(std::string &secret);

} // namespace korvane
