#include "CommandCore/Commands.h"
#include "Vorrel/AI/ResponsesFormat.h"

#include <cstdint>
#include <cstdlib>

using namespace korvane;

/// What a provider answers: refused, or read so that its continuation can be sent back.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::vector<ToolDefinition> tools{{"files.search", "Search", JSONValue::Object()}};
    const std::string body(reinterpret_cast<const char *>(data), size);
    try {
        const ResponsesRequest asked = makeResponsesRequest("model", {{Message::Role::user, "?"}}, tools, {});
        const ModelResponse response = readModelResponse(body, asked);
        for (const ToolCall &call : response.toolCalls) {
            if (call.name != tools[0].name)
                std::abort();
        }
        const ResponsesRequest next = makeResponsesRequest("model", {}, tools, response.continuation);
        if (next.input.size() < asked.input.size())
            std::abort();
    } catch (const AppError &) {
    } catch (const JSONError &) {
    }
    return 0;
}
