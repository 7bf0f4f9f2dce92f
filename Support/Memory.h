#pragma once

namespace korvane {

/// Gives memory that is free back to the system, where the allocator can. Takes some milliseconds for each hundred MiB;
/// any thread.
void returnFreeMemory();

} // namespace korvane
