#pragma once

#include "CommandCore/JSONValue.h"
#include "Vorrel/Platform/Headless/HeadlessServers.h"

#include <map>
#include <set>
#include <string>
#include <vector>

namespace korvane::test {

/// What a well-behaved server answers, and what a test lets it answer instead. Outlives the servers that play it.
struct ServerScript {
    HeadlessServer::Hear hear()
    {
        return [this](HeadlessServer &server, const std::string &line) { answer(server, JSONValue::parse(line)); };
    }

    /// A page of the list with tools "FIRST".."FIRST+COUNT-1", and the cursor of the next where it is not empty.
    static JSONValue page(int first, int count, const std::string &cursor = {})
    {
        JSONValue::Array tools;
        for (int i = first; i < first + count; ++i)
            tools.emplace_back(JSONValue::Object{{"name", "t" + std::to_string(i)}, {"inputSchema", JSONValue::Object()}});
        JSONValue::Object page{{"tools", std::move(tools)}};
        if (!cursor.empty())
            page["nextCursor"] = cursor;
        return page;
    }

    std::string version = "2025-11-25";
    /// The pages of the list, in their order; the last one again and again.
    std::vector<JSONValue> pages{page(1, 2)};
    JSONValue callResult = JSONValue::parse(R"({"content":[{"type":"text","text":"x"}]})");
    std::map<std::string, JSONValue> instead; ///< Results by method, in place of those above.
    std::set<std::string> silent; ///< Methods that are not answered.
    std::set<std::string> deadly; ///< Methods on which the server ends.

    std::vector<JSONValue> asked; ///< Every message that was heard, of all servers.
    std::vector<std::string> methods() const
    {
        std::vector<std::string> all;
        for (const JSONValue &message : asked)
            all.push_back(message.text("method"));
        return all;
    }

private:
    JSONValue result(const std::string &method)
    {
        if (const auto found = instead.find(method); found != instead.end())
            return found->second;
        if (method == "initialize")
            return JSONValue::Object{{"protocolVersion", version}};
        if (method == "tools/list")
            return pages[std::min(listed++, pages.size() - 1)];
        return callResult;
    }

    void answer(HeadlessServer &server, const JSONValue &message)
    {
        asked.push_back(message);
        const std::string method = message.text("method");
        if (deadly.contains(method))
            return server.exit();
        if (message["id"].isNull() || silent.contains(method))
            return;
        const JSONValue reply = JSONValue::Object{{"jsonrpc", "2.0"}, {"id", message["id"]}, {"result", result(method)}};
        server.say(reply.encodedString());
    }

    std::size_t listed = 0;
};

} // namespace korvane::test
