#include "Vorrel/MCP/ServerMessage.h"

#include <cmath>
#include <limits>
#include <optional>

namespace korvane {

namespace {

constexpr int methodNotFound = -32601;

/// The number of a request of ours: cut to a whole one; one beyond 64 bits is none that was ever given, like the largest.
std::optional<std::int64_t> requestNumber(const JSONValue &id)
{
    const double *number = id.number();
    if (!number || !std::isfinite(*number) || *number < 0)
        return std::nullopt;
    constexpr double beyond = 0x1p63;
    return *number < beyond ? static_cast<std::int64_t>(*number) : std::numeric_limits<std::int64_t>::max();
}

ServerMessage::Kind replyFrom(JSONValue message)
{
    const auto id = requestNumber(message["id"]);
    if (!id)
        return ServerMessage::Nothing();
    if (!message["error"].isNull())
        return ServerMessage::Reply{.id = *id, .rejected = true, .result = {}};
    return ServerMessage::Reply{.id = *id, .result = message.take("result")};
}

ServerMessage::Kind messageFrom(JSONValue message)
{
    const std::string *version = message["jsonrpc"].string();
    if (!version || *version != "2.0")
        return ServerMessage::Violation();
    const std::string *method = message["method"].string();
    if (!method)
        return replyFrom(std::move(message));
    if (message["id"].isNull())
        return ServerMessage::Nothing();
    return ServerMessage::Request{.method = *method, .id = message.take("id")};
}

JSONValue::Object envelope() { return {{"jsonrpc", "2.0"}}; }

} // namespace

ServerMessage::Kind ServerMessage::read(std::string_view line)
{
    if (line.empty())
        return Nothing();
    try {
        return messageFrom(JSONValue::parse(line));
    } catch (const JSONError &) {
        return Violation();
    }
}

JSONValue ServerMessage::request(std::int64_t id, std::string method, JSONValue params)
{
    auto members = envelope();
    members.emplace("id", id);
    members.emplace("method", std::move(method));
    members.emplace("params", std::move(params));
    return members;
}

JSONValue ServerMessage::notification(std::string method, JSONValue params)
{
    auto members = envelope();
    members.emplace("method", std::move(method));
    members.emplace("params", std::move(params));
    return members;
}

JSONValue ServerMessage::cancellation(std::int64_t id)
{
    return notification("notifications/cancelled", JSONValue::Object{{"requestId", id}});
}

JSONValue ServerMessage::answer(Request request)
{
    auto members = envelope();
    members.emplace("id", std::move(request.id));
    if (request.method == "ping")
        members.emplace("result", JSONValue::Object());
    else
        members.emplace("error", JSONValue::Object{{"code", methodNotFound}, {"message", "Client capability not supported"}});
    return members;
}

} // namespace korvane
