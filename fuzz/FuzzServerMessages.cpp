#include "Vorrel/MCP/LineBuffer.h"
#include "Vorrel/MCP/ServerMessage.h"

#include <cstdint>
#include <cstdlib>
#include <vector>

using namespace korvane;

namespace {

constexpr std::size_t limit = 4096;

std::vector<std::string> linesOf(std::string_view stream, std::size_t piece, bool &tooLong)
{
    LineBuffer buffer(limit);
    std::vector<std::string> lines;
    for (std::size_t at = 0; at < stream.size(); at += piece) {
        buffer.append(stream.substr(at, piece));
        while (const auto line = buffer.next())
            lines.emplace_back(*line);
    }
    tooLong = buffer.isTooLong();
    return lines;
}

void require(bool truth)
{
    if (!truth)
        std::abort();
}

/// An answer goes out as one line, and comes back as a reply or as nothing.
void look(const std::string &line)
{
    auto message = ServerMessage::read(line);
    if (const auto *reply = std::get_if<ServerMessage::Reply>(&message))
        require(reply->id >= 0);
    if (auto *request = std::get_if<ServerMessage::Request>(&message)) {
        const std::string answer = ServerMessage::answer(std::move(*request)).encodedString();
        require(answer.find('\n') == answer.npos);
        const auto back = ServerMessage::read(answer);
        require(std::holds_alternative<ServerMessage::Reply>(back) || std::holds_alternative<ServerMessage::Nothing>(back));
    }
}

} // namespace

/// What a server prints: the same lines however it arrives, each read as what it is. The first byte is the size of a piece.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    if (size == 0)
        return 0;
    const std::string_view stream(reinterpret_cast<const char *>(data) + 1, size - 1);
    bool tooLong = false, tooLongInOne = false;
    const auto lines = linesOf(stream, std::size_t{data[0]} + 1, tooLong);
    require(lines == linesOf(stream, stream.size() + 1, tooLongInOne));
    require(tooLong == tooLongInOne);
    for (const std::string &line : lines)
        look(line);
    return 0;
}
