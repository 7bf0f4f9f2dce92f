/// A server of the Model Context Protocol that misbehaves in the one way that its argument names.
/// It has a tool "work", which gives back the text that it is called with.

#include "CommandCore/JSONValue.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <pthread.h>
#include <string>
#include <string_view>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>

using korvane::JSONValue;

namespace {

using Object = JSONValue::Object;
using Array = JSONValue::Array;

struct Server;
using Answer = std::function<void(Server &, const JSONValue &request)>;

/// What a mode does otherwise than a good server; what is empty is done as that one does it.
struct Mode {
    std::function<void(Server &)> begin = {};
    Answer initialize = {}, list = {}, call = {};
    Answer other = {}; ///< Notifications, and answers to the server's own requests.
    std::function<void(std::string_view bytes)> write = {};
    std::function<void()> inputEnded = {};
};

void writeAll(std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t count = ::write(STDOUT_FILENO, bytes.data(), bytes.size());
        if (count < 0 && errno != EINTR)
            std::_Exit(1);
        if (count > 0)
            bytes.remove_prefix(std::size_t(count));
    }
}

void nap(long milliseconds) { ::usleep(useconds_t(milliseconds * 1000)); }

[[noreturn]] void sleepForGood()
{
    for (;;)
        ::pause();
}

JSONValue tool(std::string name)
{
    return Object{{"name", std::move(name)}, {"description", "Works."}, {"inputSchema", Object{{"type", "object"}}}};
}

Array tools(int count, int first = 0)
{
    Array all;
    for (int i = first; i < first + count; ++i)
        all.push_back(tool(i == 0 ? "work" : "tool" + std::to_string(i)));
    return all;
}

JSONValue content(std::string text) { return Object{{"content", Array{Object{{"type", "text"}, {"text", std::move(text)}}}}}; }

struct Server {
    const Mode &mode;
    int asked = 0; ///< How many answers to requests of its own are to come.
    JSONValue waiting; ///< The identifier of a request whose reply is held back.
    int pages = 0;

    void print(std::string_view bytes) const { mode.write ? mode.write(bytes) : writeAll(bytes); }
    void send(const JSONValue &message) const { print(message.encodedString() + "\n"); }
    void reply(const JSONValue &id, JSONValue result) const
    {
        send(Object{{"jsonrpc", "2.0"}, {"id", id}, {"result", std::move(result)}});
    }
    /// A reply in the words of the caller, in which # stands for the identifier.
    void replyLiterally(const JSONValue &request, std::string text) const
    {
        const auto place = text.find('#');
        if (place != text.npos)
            text.replace(place, 1, request["id"].encodedString());
        print(text + "\n");
    }

    void initialize(const JSONValue &request, const JSONValue &version = "2025-11-25") const
    {
        reply(request["id"],
            Object{{"protocolVersion", version}, {"capabilities", Object{}}, {"serverInfo", Object{{"name", "hostile"}}}});
    }
    void list(const JSONValue &request, Array all, JSONValue cursor = {}) const
    {
        Object result{{"tools", std::move(all)}};
        if (!cursor.isNull())
            result["nextCursor"] = std::move(cursor);
        reply(request["id"], std::move(result));
    }
    void work(const JSONValue &request) const
    {
        const std::string *text = request["params"]["arguments"]["text"].string();
        reply(request["id"], content(text ? *text : "nothing"));
    }

    void take(const JSONValue &message)
    {
        const std::string method = message["method"].string() ? *message["method"].string() : "";
        if (method == "initialize")
            return mode.initialize ? mode.initialize(*this, message) : initialize(message);
        if (method == "tools/list")
            return mode.list ? mode.list(*this, message) : list(message, tools(1));
        if (method == "tools/call")
            return mode.call ? mode.call(*this, message) : work(message);
        if (mode.other)
            mode.other(*this, message);
    }

    void run()
    {
        if (mode.begin)
            mode.begin(*this);
        char *line = nullptr;
        std::size_t space = 0;
        for (ssize_t size = 0; (size = ::getline(&line, &space, stdin)) > 0;)
            take(JSONValue::parse(std::string_view(line, std::size_t(size))));
        std::free(line);
        if (mode.inputEnded)
            mode.inputEnded();
    }
};

/// Answers every request with these words.
Mode always(std::string text)
{
    const Answer answer = [text](Server &server, const JSONValue &request) { server.replyLiterally(request, text); };
    return {.initialize = answer};
}

Mode callAnswers(std::string text)
{
    return {.call = [text](Server &server, const JSONValue &request) { server.replyLiterally(request, text); }};
}

Mode listAnswers(std::string text)
{
    return {.list = [text](Server &server, const JSONValue &request) { server.replyLiterally(request, text); }};
}

Mode versioned(JSONValue version)
{
    return {.initialize = [version](Server &server, const JSONValue &request) { server.initialize(request, version); }};
}

std::string repeated(std::string_view piece, std::size_t times)
{
    std::string all;
    all.reserve(piece.size() * times);
    for (std::size_t i = 0; i < times; ++i)
        all += piece;
    return all;
}

std::string withText(const std::string &inside)
{
    return R"({"jsonrpc":"2.0","id":#,"result":{"content":[{"type":"text","text":")" + inside + R"("}]}})";
}

/// Identifiers of every kind that a request may carry or ought not to.
Array identifiers() { return {7, 1.5, -1, 1e300, "seven", "", true, Array{1}, Object{{"a", 1}}}; }

/// Sends requests of its own and answers the call when each has been answered as it ought to be.
Mode asking(const std::string &method, const std::function<bool(const JSONValue &)> &isRight)
{
    return {.call =
                [method](Server &server, const JSONValue &request) {
                    server.waiting = request;
                    server.asked = int(identifiers().size());
                    for (const JSONValue &id : identifiers())
                        server.send(Object{{"jsonrpc", "2.0"}, {"id", id}, {"method", method}, {"params", Object{}}});
                    server.send(Object{{"jsonrpc", "2.0"}, {"id", nullptr}, {"method", method}}); // a notification
                },
        .other =
            [isRight](Server &server, const JSONValue &message) {
                if (server.waiting.isNull())
                    return;
                const Array all = identifiers();
                const JSONValue expected = all[all.size() - std::size_t(server.asked)];
                if (!isRight(message) || !(message["id"] == expected))
                    std::_Exit(3);
                if (--server.asked == 0)
                    server.work(std::exchange(server.waiting, {}));
            }};
}

Mode dying(int status)
{
    return {.call = [status](Server &, const JSONValue &) { std::_Exit(status); }};
}

void ignoreRequestsToEnd()
{
    for (const int signal : {SIGTERM, SIGINT, SIGHUP, SIGQUIT, SIGUSR1, SIGPIPE})
        std::signal(signal, SIG_IGN);
}

/// A process of its own session without a parent, which ignores what it is asked.
void leaveDaemon()
{
    const pid_t between = ::fork();
    if (between > 0) {
        ::waitpid(between, nullptr, 0);
        return;
    }
    ::setsid();
    if (::fork() > 0)
        std::_Exit(0);
    ignoreRequestsToEnd();
    ::close(STDIN_FILENO);
    ::close(STDOUT_FILENO);
    ::prctl(PR_SET_NAME, "innocent) Z 1");
    sleepForGood();
}

/// Each process of the chain starts the next one and goes.
void chain(int links)
{
    ignoreRequestsToEnd();
    for (; links > 0; --links) {
        ::setsid();
        if (::fork() > 0)
            std::_Exit(0);
        nap(1);
    }
    sleepForGood();
}

/// A process whose first thread has ended looks dead to a careless observer.
void loseFirstThread()
{
    ignoreRequestsToEnd();
    pthread_t thread{};
    ::pthread_create(
        &thread, nullptr, [](void *) -> void * { sleepForGood(); }, nullptr);
    ::pthread_exit(nullptr);
}

void flood(std::string_view line, std::size_t times)
{
    for (std::size_t i = 0; i < times; ++i)
        writeAll(line);
}

/// Every page has the tools of a twentieth of five hundred.
Answer paged(int pages)
{
    return [pages](Server &server, const JSONValue &request) {
        const int page = server.pages++;
        const JSONValue next = page + 1 < pages ? JSONValue("page " + std::to_string(page + 1)) : JSONValue();
        server.list(request, tools(25, page * 25), next);
    };
}

const std::map<std::string_view, Mode> &modes()
{
    static const std::string good = withText("hello");
    static const std::map<std::string_view, Mode> all{
        {"good", {}},
        // What it says when it is asked how it speaks
        {"banner", {.begin = [](Server &) { writeAll("Server ready.\n"); }}},
        {"prompt", {.begin = [](Server &) { writeAll("> "); }}},
        {"not-json", always("{oops")},
        {"scalar", always("5")},
        {"batch", always(R"([{"jsonrpc":"2.0","id":#,"result":{}}])")},
        {"two-values", always(R"({"jsonrpc":"2.0","id":#,"result":{}} {})")},
        {"jsonrpc-1", always(R"({"jsonrpc":"1.0","id":#,"result":{}})")},
        {"jsonrpc-number", always(R"({"jsonrpc":2.0,"id":#,"result":{}})")},
        {"no-jsonrpc", always(R"({"id":#,"result":{"protocolVersion":"2025-11-25"}})")},
        {"wrong-version", versioned("1999-01-01")},
        {"empty-version", versioned("")},
        {"version-number", versioned(20251125)},
        {"no-version", always(R"({"jsonrpc":"2.0","id":#,"result":{}})")},
        {"no-initialize-result", always(R"({"jsonrpc":"2.0","id":#})")},
        {"oldest-version", versioned("2024-11-05")},
        {"initialize-error", always(R"({"jsonrpc":"2.0","id":#,"error":{"code":-32603,"message":"no"}})")},
        {"never-answers", {.initialize = [](Server &, const JSONValue &) {}}},
        {"half-line", {.initialize = [](Server &, const JSONValue &) { writeAll(R"({"jsonrpc":"2.0","id":1,"resu)"); }}},
        {"drips-for-good",
            {.initialize =
                    [](Server &, const JSONValue &) {
                        for (;; nap(5))
                            writeAll(" ");
                    }}},
        // Identifiers
        {"string-id", always(R"({"jsonrpc":"2.0","id":"1","result":{"protocolVersion":"2025-11-25"}})")},
        {"null-id", always(R"({"jsonrpc":"2.0","id":null,"result":{"protocolVersion":"2025-11-25"}})")},
        {"no-id", always(R"({"jsonrpc":"2.0","result":{"protocolVersion":"2025-11-25"}})")},
        {"negative-id", always(R"({"jsonrpc":"2.0","id":-1,"result":{"protocolVersion":"2025-11-25"}})")},
        {"enormous-id", always(R"({"jsonrpc":"2.0","id":1e300,"result":{"protocolVersion":"2025-11-25"}})")},
        {"boolean-id", always(R"({"jsonrpc":"2.0","id":true,"result":{"protocolVersion":"2025-11-25"}})")},
        {"fractional-id", always(R"({"jsonrpc":"2.0","id":1.75,"result":{"protocolVersion":"2025-11-25"}})")},
        {"exponent-id", always(R"({"jsonrpc":"2.0","id":10e-1,"result":{"protocolVersion":"2025-11-25"}})")},
        {"method-number", always(R"({"jsonrpc":"2.0","method":5,"id":#,"result":{"protocolVersion":"2025-11-25"}})")},
        {"method-and-result", always(R"({"jsonrpc":"2.0","method":"x","id":#,"result":{"protocolVersion":"2025-11-25"}})")},
        // Manners of writing
        {"duplicate-replies",
            {.write =
                    [](std::string_view line) {
                        writeAll(line);
                        writeAll(line);
                    }}},
        {"replies-to-nothing",
            {.write =
                    [](std::string_view line) {
                        writeAll("{\"jsonrpc\":\"2.0\",\"id\":999,\"result\":{}}\n");
                        writeAll(line);
                    }}},
        {"byte-by-byte",
            {.write =
                    [](std::string_view line) {
                        for (const char &byte : line)
                            writeAll({&byte, 1});
                    }}},
        {"slow-drip",
            {.write =
                    [](std::string_view line) {
                        for (std::size_t at = 0; at < line.size(); at += 20, nap(2))
                            writeAll(line.substr(at, 20));
                    }}},
        {"crlf", {.write = [](std::string_view line) { writeAll(std::string(line.substr(0, line.size() - 1)) + "\r\n"); }}},
        {"empty-lines", {.write = [](std::string_view line) { writeAll("\n\n" + std::string(line) + "\n"); }}},
        {"carriage-return-line", {.write = [](std::string_view line) { writeAll("\r\n" + std::string(line)); }}},
        {"spaces", {.write = [](std::string_view line) { writeAll(repeated(" \t\r", 300'000) + std::string(line)); }}},
        {"stderr-flood",
            {.begin =
                    [](Server &) {
                        for (int i = 0; i < 1000; ++i)
                            std::fprintf(stderr, "%s\n", repeated("noise ", 2000).c_str());
                    }}},
        {"notification-flood",
            {.begin = [](Server &) { flood("{\"jsonrpc\":\"2.0\",\"method\":\"notifications/x\"}\n", 50'000); }}},
        {"unknown-reply-flood", {.begin = [](Server &) { flood("{\"jsonrpc\":\"2.0\",\"id\":77,\"result\":1}\n", 50'000); }}},
        {"ping-flood-unread",
            {.call =
                    [](Server &, const JSONValue &) {
                        for (;;)
                            flood("{\"jsonrpc\":\"2.0\",\"id\":\"" + repeated("p", 10'000) + "\",\"method\":\"ping\"}\n", 100);
                    }}},
        // The list of tools
        {"cursor-loop", {.list = [](Server &server, const JSONValue &request) { server.list(request, {}, "same"); }}},
        {"cursor-long-loop",
            {.list = [](Server &server,
                         const JSONValue &request) { server.list(request, {}, std::to_string(server.pages++ % 3)); }}},
        {"pages-20", {.list = paged(20)}},
        {"pages-21", {.list = paged(21)}},
        {"tools-500", {.list = [](Server &server, const JSONValue &request) { server.list(request, tools(500)); }}},
        {"tools-501", {.list = [](Server &server, const JSONValue &request) { server.list(request, tools(501)); }}},
        {"tools-none", {.list = [](Server &server, const JSONValue &request) { server.list(request, {}); }}},
        {"same-names",
            {.list =
                    [](Server &server, const JSONValue &request) {
                        server.list(request, {tool("work"), tool("work")});
                    }}},
        {"no-schema", listAnswers(R"({"jsonrpc":"2.0","id":#,"result":{"tools":[{"name":"work"}]}})")},
        {"null-schema", listAnswers(R"({"jsonrpc":"2.0","id":#,"result":{"tools":[{"name":"work","inputSchema":null}]}})")},
        {"no-tools", listAnswers(R"({"jsonrpc":"2.0","id":#,"result":{}})")},
        {"tools-object", listAnswers(R"({"jsonrpc":"2.0","id":#,"result":{"tools":{"name":"work"}}})")},
        {"tool-text", listAnswers(R"({"jsonrpc":"2.0","id":#,"result":{"tools":["work"]}})")},
        {"name-number", listAnswers(R"({"jsonrpc":"2.0","id":#,"result":{"tools":[{"name":5,"inputSchema":{}}]}})")},
        {"description-number",
            listAnswers(R"({"jsonrpc":"2.0","id":#,"result":{"tools":[{"name":"work","description":1,"inputSchema":{}}]}})")},
        {"cursor-number", listAnswers(R"({"jsonrpc":"2.0","id":#,"result":{"tools":[],"nextCursor":5}})")},
        {"list-error", listAnswers(R"({"jsonrpc":"2.0","id":#,"error":"no"})")},
        {"list-null", listAnswers(R"({"jsonrpc":"2.0","id":#,"result":null})")},
        {"required-number",
            listAnswers(
                R"({"jsonrpc":"2.0","id":#,"result":{"tools":[{"name":"work","inputSchema":{"required":[5,"text"]}}]}})")},
        {"long-name",
            {.list =
                    [](Server &server, const JSONValue &request) {
                        server.list(request, {tool("work"), tool(repeated("long ", 200'000))});
                    }}},
        // The call
        {"asks",
            asking("roots/list",
                [](const JSONValue &answer) {
                    return answer["error"]["code"] == JSONValue(-32601) && answer["result"].isNull();
                })},
        {"pings",
            asking("ping",
                [](const JSONValue &answer) { return answer["result"] == JSONValue(Object{}) && answer["error"].isNull(); })},
        {"huge",
            {.call = [](Server &server,
                         const JSONValue &request) { server.replyLiterally(request, withText(std::string(7'000'000, 'x'))); }}},
        {"too-huge",
            {.call =
                    [](Server &, const JSONValue &) {
                        writeAll(std::string(8'000'001, ' '));
                        sleepForGood();
                    }}},
        {"deep", callAnswers(R"({"jsonrpc":"2.0","id":#,"result":)" + repeated("[", 100'000) + repeated("]", 100'000) + "}")},
        {"deep-enough", callAnswers(R"({"jsonrpc":"2.0","id":#,"result":)" + repeated("[", 500) + repeated("]", 500) + "}")},
        {"bad-utf8", callAnswers(withText("\xC3\x28 \xFF"))},
        {"nul-bytes", callAnswers(withText(std::string("a\0b", 3)))},
        {"nul-between", callAnswers(std::string("\0", 1) + good)},
        {"byte-order-mark", callAnswers("\xEF\xBB\xBF" + good)},
        {"lone-surrogate", callAnswers(withText("\\ud800"))},
        {"controls", callAnswers(withText("\\u0000\\u001b[2J"))},
        {"infinite", callAnswers(R"({"jsonrpc":"2.0","id":#,"result":{"value":1e400}})")},
        {"big-number", callAnswers(R"({"jsonrpc":"2.0","id":#,"result":{"value":123456789012345678901234567890}})")},
        {"tool-error", callAnswers(R"({"jsonrpc":"2.0","id":#,"result":{"isError":true,"content":[]}})")},
        {"tool-error-text", callAnswers(R"({"jsonrpc":"2.0","id":#,"result":{"isError":"true","content":[]}})")},
        {"error-member", callAnswers(R"({"jsonrpc":"2.0","id":#,"error":{"code":-32602,"message":"told"}})")},
        {"error-false", callAnswers(R"({"jsonrpc":"2.0","id":#,"error":false,"result":{}})")},
        {"error-null", callAnswers(R"({"jsonrpc":"2.0","id":#,"error":null,"result":{"content":[]}})")},
        {"no-result", callAnswers(R"({"jsonrpc":"2.0","id":#})")},
        {"answers-late",
            {.call =
                    [](Server &server, const JSONValue &request) {
                        if (server.pages++ > 0)
                            return server.work(request);
                        server.waiting = request;
                    },
                .other =
                    [](Server &server, const JSONValue &message) {
                        if (message["method"] == JSONValue("notifications/cancelled"))
                            server.work(server.waiting);
                    }}},
        {"stops-reading", {.call = [](Server &, const JSONValue &) { sleepForGood(); }}},
        // Ends
        {"exit-at-once", {.begin = [](Server &) { std::_Exit(0); }}},
        {"exit-in-initialize", {.initialize = [](Server &, const JSONValue &) { std::_Exit(0); }}},
        {"exit-after-initialize",
            {.initialize =
                    [](Server &server, const JSONValue &request) {
                        server.initialize(request);
                        std::_Exit(0);
                    }}},
        {"half-line-and-exit",
            {.initialize =
                    [](Server &, const JSONValue &) {
                        writeAll(R"({"jsonrpc":"2.0","id":1,"resu)");
                        std::_Exit(0);
                    }}},
        {"exit-on-second-page",
            {.list =
                    [](Server &server, const JSONValue &request) {
                        if (server.pages++ > 0)
                            std::_Exit(0);
                        server.list(request, tools(2), "second");
                    }}},
        {"exit-in-huge",
            {.call =
                    [](Server &, const JSONValue &) {
                        const std::string whole = withText(std::string(7'000'000, 'x'));
                        writeAll(std::string_view(whole).substr(0, whole.size() / 2));
                        std::_Exit(0);
                    }}},
        {"exit-while-asking",
            {.call =
                    [](Server &server, const JSONValue &) {
                        server.send(Object{{"jsonrpc", "2.0"}, {"id", 1}, {"method", "roots/list"}});
                        std::_Exit(0);
                    }}},
        {"exit-in-list", {.list = [](Server &, const JSONValue &) { std::_Exit(1); }}},
        {"exit-in-call", dying(1)},
        {"crash", {.call = [](Server &, const JSONValue &) { std::raise(SIGSEGV); }}},
        {"closes-output",
            {.call =
                    [](Server &, const JSONValue &) {
                        ::close(STDOUT_FILENO);
                        sleepForGood();
                    }}},
        {"closes-input",
            {.initialize =
                    [](Server &server, const JSONValue &request) {
                        ::close(STDIN_FILENO);
                        server.initialize(request);
                        sleepForGood();
                    }}},
        {"stubborn", {.begin = [](Server &) { ignoreRequestsToEnd(); }, .inputEnded = [] { sleepForGood(); }}},
        {"stops-itself", {.call = [](Server &, const JSONValue &) { std::raise(SIGSTOP); }}},
        {"leaves-daemons",
            {.begin =
                    [](Server &) {
                        for (int i = 0; i < 5; ++i)
                            leaveDaemon();
                    }}},
        {"daemon-in-the-end", {.inputEnded = [] { leaveDaemon(); }}},
        {"becomes-daemon",
            {.begin =
                    [](Server &) {
                        if (::fork() > 0)
                            std::_Exit(0);
                        ::setsid();
                        ignoreRequestsToEnd();
                    },
                .inputEnded = [] { sleepForGood(); }}},
        {"chain",
            {.begin =
                    [](Server &) {
                        if (::fork() == 0)
                            chain(2000);
                    }}},
        {"loses-first-thread", {.inputEnded = [] { loseFirstThread(); }}},
        {"talks-to-the-end",
            {.inputEnded =
                    [] {
                        ignoreRequestsToEnd();
                        for (;;)
                            writeAll("{\"jsonrpc\":\"2.0\",\"method\":\"notifications/still here\"}\n");
                    }}},
    };
    return all;
}

} // namespace

int main(int count, char **words)
{
    if (count == 2) {
        const auto mode = modes().find(words[1]);
        if (mode != modes().end()) {
            Server server{mode->second, 0, {}, 0};
            server.run();
            return 0;
        }
    }
    for (const auto &[name, mode] : modes())
        std::printf("%s\n", name.data());
    return count == 1 ? 0 : 2;
}
