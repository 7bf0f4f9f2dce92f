// What the program adds to an MCP server's own time, on the same server in the same run:
//   korvane_bench_mcp HOST ECHO [CALLS]
// HOST looks after a server, ECHO is the server. Ends with 1 when a limit is exceeded.
#include "CommandCore/Commands.h"
#include "Support/Descriptor.h"
#include "Vorrel/MCP/MCPManager.h"
#include "Vorrel/MCP/MCPToolAdapter.h"
#include "Vorrel/MCP/ServerMessage.h"
#include "Vorrel/Platform/Linux/LinuxServerLaunching.h"
#include "Vorrel/Shell/AppLog.h"
#include "bench/Table.h"
#include "tests/support/Await.h"

#include <chrono>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <semaphore>
#include <stdexcept>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace korvane;
using namespace korvane::bench;

namespace {

constexpr double limit = 1.5; // times the same bytes over a bare pipe
constexpr int rounds = 10; // of calls, in turns with the rival

double millisecondsOf(const std::function<void()> &work)
{
    const auto began = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - began).count();
}

JSONValue callParams(const std::string &name, std::size_t size)
{
    return JSONValue::Object{{"name", name}, {"arguments", JSONValue::Object{{"text", std::string(size, 'a')}}}};
}

/// The server over two pipes and nothing else: one write, and reads until the line feed.
class BarePipe {
public:
    explicit BarePipe(const std::string &server)
    {
        int in[2], out[2];
        if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0)
            throw std::runtime_error("no pipe");
        id = ::fork();
        if (id == 0) {
            ::dup2(in[0], 0);
            ::dup2(out[1], 1);
            ::execl(server.c_str(), server.c_str(), nullptr);
            ::_exit(127);
        }
        ::close(in[0]);
        ::close(out[1]);
        writing.reset(in[1]);
        reading.reset(out[0]);
    }
    ~BarePipe()
    {
        closeInput();
        ::waitpid(id, nullptr, 0);
    }
    BarePipe(const BarePipe &) = delete;

    void call(const std::string &line)
    {
        say(line);
        if (!hear())
            throw std::runtime_error("the server has ended");
    }
    void say(const std::string &line) const
    {
        if (::write(writing.get(), line.data(), line.size()) != ssize_t(line.size()))
            throw std::runtime_error("the server does not read");
    }
    /// Reads to the end of a line. False at the end of all.
    bool hear()
    {
        for (;;) {
            const ssize_t count = ::read(reading.get(), answer.data(), answer.size());
            if (count <= 0)
                return false;
            if (answer[std::size_t(count) - 1] == '\n')
                return true;
        }
    }
    void closeInput() { writing.reset(); }

private:
    pid_t id = 0;
    Descriptor writing, reading;
    std::vector<char> answer = std::vector<char>(65'536);
};

/// The least that a client needs whose caller must not block: a thread of its own that reads, and hands each answer over.
class ReadingThread {
public:
    explicit ReadingThread(const std::string &server) : pipe(server), thread([this] { readAll(); }) { }
    ~ReadingThread()
    {
        pipe.closeInput(); // the server ends, and with it the reading
        thread.join();
    }
    ReadingThread(const ReadingThread &) = delete;

    void call(const std::string &line)
    {
        pipe.say(line);
        answered.acquire();
    }

private:
    void readAll()
    {
        while (pipe.hear())
            answered.release();
    }

    BarePipe pipe;
    std::binary_semaphore answered{0};
    std::thread thread;
};

/// The program's own way to the same server.
struct Ours {
    Ours(const std::string &host, std::string server) : launching(host), configuration{.id = "b", .name = "B", .command = server}
    {
        registry.policy.confirmWrites = false;
    }
    ~Ours() { test::await(loop, manager.stop()); }

    void disconnect() { test::await(loop, manager.disconnect(configuration)); }
    void connect() { test::await(loop, manager.connect(configuration)); }
    ToolResult call(const std::string &name, JSONValue arguments)
    {
        const MCPToolAdapter adapter("mcp.b.", {.name = name, .description = {}, .inputSchema = {}}, transport);
        return test::await(loop, adapter.execute(std::move(arguments)));
    }
    /// A transport of its own, for a name that is in no list.
    void open()
    {
        transport = std::make_shared<StdioTransport>(parts);
        test::await(loop, transport->start(configuration, {}));
    }
    void close() { test::await(loop, transport->close()); }

    MainLoop loop;
    ThreadPool pool{4};
    SystemClock clock;
    LinuxServerLaunching launching;
    const StdioTransport::Parts parts{pool.executor(), clock, launching, "/"};
    const MCPServerConfiguration configuration;
    KeychainService keychain{pool.executor(), nullptr};
    ToolRegistry registry{[](const ToolDefinition &, const JSONValue &) -> Task<void> { co_return; }};
    std::shared_ptr<Database> database =
        test::await(loop, Database::open(pool.executor(), ":memory:", Database::Access::readWrite));
    MCPManager manager{{registry, keychain, database, parts}};
    std::shared_ptr<StdioTransport> transport;
};

struct Compared {
    double bare = 0, threaded = 0, ours = 0; ///< Milliseconds, the medians.
    double times() const { return ours / bare; }
};

Compared compare(Ours &ours, BarePipe &pipe, ReadingThread &thread, const std::string &name, std::size_t size, int calls)
{
    const JSONValue params = callParams(name, size);
    const std::string line = ServerMessage::request(1, "tools/call", params).encodedString() + "\n";
    std::vector<double> bare, threaded, through;
    for (int round = 0; round < rounds; ++round) {
        for (int i = 0; i < calls / rounds; ++i)
            bare.push_back(millisecondsOf([&] { pipe.call(line); }));
        for (int i = 0; i < calls / rounds; ++i)
            threaded.push_back(millisecondsOf([&] { thread.call(line); }));
        for (int i = 0; i < calls / rounds; ++i) {
            JSONValue arguments = params["arguments"];
            through.push_back(millisecondsOf([&] { ours.call(name, std::move(arguments)); }));
        }
    }
    return {median(bare), median(threaded), median(through)};
}

/// What a line costs as it comes, in pieces of the size of a pipe.
double readingMilliseconds(std::size_t size)
{
    const std::string line = R"({"jsonrpc":"2.0","id":1,"result":{"text":")" + std::string(size, 'a') + "\"}}\n";
    std::vector<double> taken;
    for (int i = 0; i < 20; ++i) {
        taken.push_back(millisecondsOf([&line] {
            LineBuffer buffer(StdioTransport::largestLine);
            for (std::size_t at = 0; at < line.size(); at += 65'536) {
                buffer.append(std::string_view(line).substr(at, 65'536));
                while (const auto whole = buffer.next())
                    if (!std::holds_alternative<ServerMessage::Reply>(ServerMessage::read(*whole)))
                        throw std::runtime_error("no reply");
            }
        }));
    }
    return median(taken);
}

void printGrowth()
{
    Table table({"Reading a line, median", "ms", "ms a million bytes"});
    for (const std::size_t millions : {1U, 4U, 7U}) {
        const double taken = readingMilliseconds(millions * 1'000'000);
        table.add({std::to_string(millions) + ",000,000 bytes", number(taken, 2), number(taken / double(millions), 2)});
    }
    std::printf("\n");
    table.print();
}

} // namespace

int main(int count, char **words)
try {
    const int calls = count > 3 ? std::atoi(words[3]) : 3000;
    if (count < 3 || calls < rounds)
        throw std::runtime_error("usage: korvane_bench_mcp HOST ECHO [CALLS]");
    AppLog::silence();
    Ours ours(words[1], words[2]);
    BarePipe pipe(words[2]);
    ReadingThread thread(words[2]);

    std::vector<double> connecting;
    for (int i = 0; i < 10; ++i) {
        ours.disconnect(); // the end of a server has its own time
        connecting.push_back(millisecondsOf([&] { ours.connect(); }));
    }
    if (ours.registry.definitions().size() != MCPManager::mostTools)
        throw std::runtime_error("the tools are missing");

    ours.open();
    Table table({"Call, median", "Bare pipe, µs", "With a reading thread, µs", "Times", "Korvane, µs", "Times", "Limit", ""});
    bool kept = true;
    const struct {
        const char *what, *name;
        std::size_t size;
        int calls;
    } cases[] = {{"100 bytes", "echo", 100, calls}, {"4,000 bytes", "echo", 4000, calls},
        {"100,000 bytes", "echo", 100'000, calls / 10}, {"a result of 7,000,000 bytes", "large", 10, 40}};
    for (const auto &c : cases) {
        const Compared seen = compare(ours, pipe, thread, c.name, c.size, c.calls);
        kept = kept && seen.times() <= limit;
        table.add({c.what, number(1000 * seen.bare, 1), number(1000 * seen.threaded, 1), number(seen.threaded / seen.bare, 2),
            number(1000 * seen.ours, 1), number(seen.times(), 2), number(limit, 1), seen.times() <= limit ? "kept" : "EXCEEDED"});
    }
    ours.close();
    table.print();
    printGrowth();
    std::printf("\n500 tools in 20 pages, from the start of the server to \"Connected\": %.1f ms\n", median(connecting));
    return kept ? 0 : 1;
} catch (const std::exception &error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 2;
}
