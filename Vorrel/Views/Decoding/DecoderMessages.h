#pragma once

#include "Support/Descriptor.h"

#include <cstddef>
#include <cstdint>
#include <optional>

/// What the program and the process that decodes files for it say to each other, over one socket: a request, then its
/// answer. Both run on one machine from one build, so the records cross as they are.
namespace korvane::decoding {

/// The most pixels that an answer has on a side.
inline constexpr std::int32_t longestSide = 16'384;
/// The most pages of a document that are told of.
inline constexpr std::int32_t mostPages = 10'000;

enum class Wish : std::uint32_t {
    Picture, ///< Of a new file, which comes along.
    NextFrame, ///< Of the picture asked for before.
    Document, ///< Of a new file, which comes along: how large its pages are.
    Page ///< Of the document asked for before.
};

struct Request {
    Wish wish = Wish::Picture;
    std::int32_t page = 0; ///< From 0.
    std::int32_t width = 0, height = 0; ///< The answer has at most that many pixels.
};

enum class Outcome : std::uint32_t {
    Done,
    Failed, ///< The file is none of its kind, is broken, or asks for too much.
    Locked, ///< It needs a password.
    Ended ///< There is no further frame.
};

/// After it come its bytes: four for each pixel, blue first, colours multiplied by the opacity; of a document two floats
/// for each page, in points.
struct Reply {
    Outcome outcome = Outcome::Failed;
    std::int32_t width = 0, height = 0; ///< Of the pixels that follow.
    std::int32_t fullWidth = 0, fullHeight = 0; ///< Of the whole picture, in pixels of its own.
    std::int32_t count = 0; ///< Pages of a document; of a picture 1, or 2 when more frames follow.
    std::int32_t milliseconds = 0; ///< How long a frame is shown.
    std::uint32_t isOpaque = 0;
    std::uint32_t isDrawing = 0; ///< The picture has no pixels of its own and is sharp at every size.
    std::uint64_t bytes = 0;
};

/// Whether an answer is one that may be had to `request`. Whoever answers has read a file that may come from anywhere.
bool fits(const Reply &reply, const Request &request);

/// All of these block, and are false or nothing when the other side has gone.
bool sendRequest(int socket, const Request &request, int file); ///< `file` -1 for none.
struct Received {
    Request request;
    Descriptor file;
};
std::optional<Received> receiveRequest(int socket);
bool writeAll(int socket, const void *bytes, std::size_t count);
bool readAll(int socket, void *bytes, std::size_t count);

} // namespace korvane::decoding
