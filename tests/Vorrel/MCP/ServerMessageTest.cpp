#include "Vorrel/MCP/ServerMessage.h"

#include <gtest/gtest.h>

#include <limits>

using namespace korvane;

namespace {

/// What a line is, in a few words.
std::string kindOf(std::string_view line)
{
    const auto message = ServerMessage::read(line);
    if (std::holds_alternative<ServerMessage::Violation>(message))
        return "violation";
    if (const auto *request = std::get_if<ServerMessage::Request>(&message))
        return request->method + " " + request->id.encodedString();
    if (const auto *reply = std::get_if<ServerMessage::Reply>(&message))
        return std::to_string(reply->id) + (reply->rejected ? " rejected" : " " + reply->result.encodedString());
    return "nothing";
}

const std::string largest = std::to_string(std::numeric_limits<std::int64_t>::max());

} // namespace

TEST(ServerMessage, ALineIsReadAsWhatItIs)
{
    const struct {
        const char *why;
        std::string line, kind;
    } cases[] = {
        {"an empty line", "", "nothing"},
        {"a line that Windows ended", "{\"jsonrpc\":\"2.0\",\"id\":1}\r", "1 null"},
        {"nothing but a carriage return", "\r", "violation"},
        {"a banner", "Server ready.", "violation"},
        {"half an object", R"({"jsonrpc":"2.0","id":1)", "violation"},
        {"two objects", R"({"jsonrpc":"2.0","id":1}{})", "violation"},
        {"a NUL", std::string("{\"jsonrpc\":\"2.0\"}\0", 18), "violation"},
        {"bytes that are no UTF-8", "{\"jsonrpc\":\"2.0\",\"id\":1,\"result\":\"\xff\"}", "violation"},
        {"a byte order mark", "\xEF\xBB\xBF{\"jsonrpc\":\"2.0\",\"id\":1}", "violation"},
        {"a number beyond a double", R"({"jsonrpc":"2.0","id":1e400})", "violation"},
        {"nesting without end", std::string(100'000, '['), "violation"},
        {"no version", R"({"id":1,"result":{}})", "violation"},
        {"an old version", R"({"jsonrpc":"1.0","id":1})", "violation"},
        {"a version that is a number", R"({"jsonrpc":2.0,"id":1})", "violation"},
        {"a batch", R"([{"jsonrpc":"2.0","id":1}])", "violation"},
        {"a bare value", "7", "violation"},
        {"a notification", R"({"jsonrpc":"2.0","method":"notifications/message","params":{}})", "nothing"},
        {"a notification called ping", R"({"jsonrpc":"2.0","method":"ping"})", "nothing"},
        {"a request with a null id", R"({"jsonrpc":"2.0","method":"ping","id":null})", "nothing"},
        {"a ping", R"({"jsonrpc":"2.0","method":"ping","id":7})", "ping 7"},
        {"a request with a text as id", R"({"jsonrpc":"2.0","method":"roots/list","id":"a"})", "roots/list \"a\""},
        {"a request with an object as id", R"({"jsonrpc":"2.0","method":"m","id":{"a":[1]}})", R"(m {"a":[1]})"},
        {"a request with false as id", R"({"jsonrpc":"2.0","method":"m","id":false})", "m false"},
        {"a method that is no text", R"({"jsonrpc":"2.0","method":7,"id":1,"result":2})", "1 2"},
        {"a reply", R"({"jsonrpc":"2.0","id":1,"result":{"a":1}})", R"(1 {"a":1})"},
        {"a reply without a result", R"({"jsonrpc":"2.0","id":1})", "1 null"},
        {"a reply with a null error", R"({"jsonrpc":"2.0","id":1,"error":null,"result":3})", "1 3"},
        {"a rejection", R"({"jsonrpc":"2.0","id":1,"error":{"code":-1,"message":"no"}})", "1 rejected"},
        {"an error that is only false", R"({"jsonrpc":"2.0","id":1,"error":false,"result":3})", "1 rejected"},
        {"a text as id", R"({"jsonrpc":"2.0","id":"1","result":3})", "nothing"},
        {"no id", R"({"jsonrpc":"2.0","result":3})", "nothing"},
        {"true as id", R"({"jsonrpc":"2.0","id":true})", "nothing"},
        {"a negative id", R"({"jsonrpc":"2.0","id":-1})", "nothing"},
        {"a little below nothing", R"({"jsonrpc":"2.0","id":-0.5})", "nothing"},
        {"a negative zero", R"({"jsonrpc":"2.0","id":-0})", "0 null"},
        {"a fraction", R"({"jsonrpc":"2.0","id":1.9})", "1 null"},
        {"an enormous id", R"({"jsonrpc":"2.0","id":1e300})", largest + " null"},
        {"the first id beyond 64 bits", R"({"jsonrpc":"2.0","id":9223372036854775808})", largest + " null"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_EQ(kindOf(c.line), c.kind);
    }
}

TEST(ServerMessage, ARequestAndANotificationHaveTheMembersOfTheProtocol)
{
    EXPECT_EQ(ServerMessage::request(3, "tools/call", JSONValue::Object{{"name", "x"}}).encodedString(),
        R"({"id":3,"jsonrpc":"2.0","method":"tools\/call","params":{"name":"x"}})");
    EXPECT_EQ(ServerMessage::notification("notifications/initialized", JSONValue::Object()).encodedString(),
        R"({"jsonrpc":"2.0","method":"notifications\/initialized","params":{}})");
    EXPECT_EQ(ServerMessage::cancellation(3).encodedString(),
        R"({"jsonrpc":"2.0","method":"notifications\/cancelled","params":{"requestId":3}})");
}

TEST(ServerMessage, APingIsAnsweredByAnEmptyResultAndAnythingElseIsNotSupported)
{
    EXPECT_EQ(ServerMessage::answer({"ping", 7}).encodedString(), R"({"id":7,"jsonrpc":"2.0","result":{}})");
    EXPECT_EQ(ServerMessage::answer({"roots/list", "a"}).encodedString(),
        R"({"error":{"code":-32601,"message":"Client capability not supported"},"id":"a","jsonrpc":"2.0"})");
}
