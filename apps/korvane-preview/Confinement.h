#pragma once

namespace korvane {

/// Takes from this process what reading an opened file does not need: memory beyond a bound, other programs, the network,
/// files to write. For good; what is refused fails with an error. Call it before the first byte that is not trusted.
void confine();

/// Gives what is done from now on a bounded time of the processor, after which the process ends.
void allowProcessorTime();

} // namespace korvane
