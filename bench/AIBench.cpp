// What the gate and the loop of a request to a model cost, with a model that answers at once and tools that do nothing:
//   korvane_bench_ai [RUNS]
// Ends with 1 when a limit is exceeded.
#include "CommandCore/Commands.h"
#include "Vorrel/AI/AIRuntime.h"
#include "bench/Table.h"
#include "tests/support/Await.h"

#include <chrono>
#include <cstdlib>
#include <stdexcept>

using namespace korvane;
using namespace korvane::bench;

namespace {

constexpr int steps = 8, calls = 8;
constexpr double limit = 5; // milliseconds in all

struct Nothing final : Tool {
    explicit Nothing(int number) : told{.name = "nothing." + std::to_string(number), .description = "Does nothing."} { }
    const ToolDefinition &definition() const override { return told; }
    Task<ToolResult> execute(JSONValue) const override { co_return ToolResult(JSONValue::Object{{"done", true}}); }
    ToolDefinition told;
};

/// Wants all tools in every answer.
struct Wishing final : ModelProvider {
    Task<ModelResponse> chat(std::vector<Message>, std::vector<ToolDefinition>, std::optional<std::string>) override
    {
        ModelResponse response;
        for (int call = 0; call < calls; ++call) {
            response.toolCalls.push_back({.id = std::to_string(step) + "." + std::to_string(call),
                .name = "nothing." + std::to_string(call),
                .arguments = JSONValue::Object{{"path", "/home/ada/notes.md"}}});
        }
        ++step;
        co_return response;
    }
    int step = 0;
};

double millisecondsOf(MainLoop &loop, const AIRuntime &runtime)
{
    Wishing model;
    bool limited = false;
    const auto began = std::chrono::steady_clock::now();
    try {
        test::await(loop, runtime.run("question", model, {}, {}, [](const std::string &) {}));
    } catch (const AppError &) {
        limited = model.step == steps; // the tools of the last answer have run, and then there are no more steps
    }
    const double taken = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - began).count();
    if (!limited)
        throw std::runtime_error("the run has not ended as it should");
    return taken;
}

} // namespace

int main(int count, char **words)
try {
    const int runs = count > 1 ? std::atoi(words[1]) : 1000;
    if (runs < 1)
        throw std::runtime_error("usage: korvane_bench_ai [RUNS]");
    MainLoop loop;
    ToolRegistry registry([](const ToolDefinition &, const JSONValue &) -> Task<void> { co_return; });
    for (int number = 0; number < calls; ++number)
        registry.registerTool(std::make_shared<Nothing>(number));
    const AIRuntime runtime(registry);
    std::vector<double> whole;
    for (int i = 0; i < runs; ++i)
        whole.push_back(millisecondsOf(loop, runtime));
    const double all = percentile95(whole);
    constexpr int toolCalls = steps * calls;
    Table table({"Of " + std::to_string(runs) + " runs", "Median", "p95", "Limit", ""});
    table.add({"Eight answers, 64 tool calls, ms", number(median(whole), 3), number(all, 3), number(limit, 0),
        all <= limit ? "kept" : "EXCEEDED"});
    table.add({"One tool call, µs", number(1000 * median(whole) / toolCalls, 1), number(1000 * all / toolCalls, 1), "", ""});
    table.print();
    return all <= limit ? 0 : 1;
} catch (const std::exception &error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 2;
}
