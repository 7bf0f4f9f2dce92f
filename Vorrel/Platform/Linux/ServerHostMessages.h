#pragma once

#include <cstdint>

/// What this program and the one that looks after a server (`korvane-mcp-host`) tell each other, over a stream socket that is
/// the other's standard input. Both are of the same build.
namespace korvane::hosting {

/// The first message. Its first byte carries two descriptors: the server's standard input and standard output. After it come
/// `bytes` bytes: the path of the program, its arguments, its environment, each text with a NUL behind it.
struct Opening {
    std::uint32_t arguments = 0; ///< Without the path.
    std::uint32_t variables = 0;
    std::uint64_t bytes = 0;
};

/// The one answer: 0 when the server has begun, otherwise the system's error. The end of the socket without an answer means that
/// the host failed; after it, that nothing of the server runs any more.
using Answer = std::int32_t;

/// One byte each, after the answer. The end of the socket asks for both, 0.3 seconds apart.
enum class Command : char {
    terminate = 't', ///< Signal 15 to everything that the server started.
    kill = 'k' ///< Signal 9, until nothing is left.
};

} // namespace korvane::hosting
