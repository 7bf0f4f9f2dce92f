#include "Vorrel/MCP/StdioTransport.h"

#include "CommandCore/Commands.h"
#include "Support/Memory.h"
#include "Vorrel/MCP/ServerMessage.h"

#include <algorithm>

namespace korvane {

namespace {

using Program = ServerLaunching::Program;
using Texts = MCPServerConfiguration::Texts;

AppError closedError() { return AppError(AppError::Kind::mcp, "The MCP connection is closed."); }

std::exception_ptr failure(AppError error) { return std::make_exception_ptr(std::move(error)); }

/// Overwritten when nobody needs them any more, whatever happened.
std::shared_ptr<const Texts> wiping(Texts secrets)
{
    return {new Texts(std::move(secrets)), [](Texts *texts) {
                for (auto &[name, value] : *texts)
                    wipe(value);
                delete texts;
            }};
}

void requireStdio(const MCPServerConfiguration &configuration)
{
    if (configuration.transport != MCPServerConfiguration::Transport::stdio)
        throw AppError(AppError::Kind::configuration, "Streamable HTTP is reserved for a future release. Use stdio.");
}

/// A system that takes texts up to their first NUL must not look at another file than the one that was named.
bool hasNul(std::string_view text) { return text.find('\0') != text.npos; }

Task<void> requireExecutable(ServerLaunching &launching, const std::string &command)
{
    const bool usable = command.starts_with('/') && !hasNul(command) && co_await launching.isExecutable(command);
    if (!usable)
        throw AppError(
            AppError::Kind::configuration, "Select an absolute path to an executable, such as /opt/homebrew/bin/node.");
}

bool isVariable(const std::string &name, const std::string &value)
{
    return !name.empty() && name.find('=') == name.npos && !hasNul(name) && !hasNul(value);
}

/// What cannot be handed to a program whole is not handed over cut off.
void requireTexts(const std::vector<std::string> &arguments, const Texts &variables)
{
    const bool usable = std::ranges::none_of(arguments, hasNul)
        && std::ranges::all_of(variables, [](const auto &variable) { return isVariable(variable.first, variable.second); });
    if (!usable)
        throw AppError(AppError::Kind::configuration,
            "A variable of an MCP server needs a name without an equals sign, and neither values nor arguments may contain a "
            "null character.");
}

/// Nothing is inherited. What comes later wins.
Texts environmentOf(const std::string &home, const Texts &env, const Texts &secrets)
{
    Texts variables{{"HOME", home}, {"PATH", "/opt/homebrew/bin:/usr/local/bin:/usr/bin:/bin"}, {"LANG", "en_US.UTF-8"}};
    for (const Texts *more : {&env, &secrets})
        for (const auto &[name, value] : *more)
            variables.insert_or_assign(name, value);
    return variables;
}

/// The environment is overwritten in the end, like the secrets that it holds.
std::shared_ptr<const Program> programOf(
    const std::string &home, const MCPServerConfiguration &configuration, const Texts &secrets)
{
    const auto variables = wiping(environmentOf(home, configuration.env, secrets));
    requireTexts(configuration.args, *variables);
    const std::shared_ptr<Program> program(new Program, [](Program *unused) {
        std::ranges::for_each(unused->environment, wipe);
        delete unused;
    });
    program->path = configuration.command;
    program->arguments = configuration.args;
    for (const auto &[name, value] : *variables)
        program->environment.push_back(name + "=" + value);
    return program;
}

/// Ends the wait with the server, or with what `StdioTransport::start` throws.
Task<void> launch(StdioTransport::Parts parts, MCPServerConfiguration configuration, std::shared_ptr<const Texts> secrets,
    Continuation<std::shared_ptr<ServerProcess>> launched)
{
    std::exception_ptr error;
    try {
        co_await requireExecutable(parts.launching, configuration.command);
        const auto program = programOf(parts.home, configuration, *secrets);
        launched.resume(co_await parts.launching.launch(program));
    } catch (...) {
        error = std::current_exception();
    }
    if (error)
        launched.fail(std::move(error));
}

/// A message as it is sent. Throws `mcp` when it is too long.
std::string lineOf(const JSONValue &message)
{
    std::string line = message.encodedString();
    if (line.size() > StdioTransport::largestMessage)
        throw AppError(AppError::Kind::mcp, "The MCP request exceeds the size limit.");
    line += '\n';
    return line;
}

} // namespace

StdioTransport::StdioTransport(Parts given) : parts(std::move(given)), actor(parts.pool) { }

StdioTransport::~StdioTransport()
{
    if (closed || !process)
        return;
    process->kill();
    // A handle belongs to the strand. The reader reaches no transport any more and ends there.
    const auto held = std::make_shared<TaskHandle>(std::move(reader));
    runLater(actor.executor(), [held] { held->cancel(); });
}

// Each operation holds the transport, so that it is there until the operation's end on the strand.

Task<void> StdioTransport::start(MCPServerConfiguration configuration, Texts secrets)
{
    const Self self = shared_from_this();
    Task<void> task = startOnStrand(self, std::move(configuration), std::move(secrets));
    co_await self->actor.perform(std::move(task));
}

Task<JSONValue> StdioTransport::request(std::string method, JSONValue params)
{
    const Self self = shared_from_this();
    Task<JSONValue> task = requestOnStrand(self, std::move(method), std::move(params));
    co_return co_await self->actor.perform(std::move(task));
}

Task<void> StdioTransport::notify(std::string method, JSONValue params)
{
    const Self self = shared_from_this();
    Task<void> task = notifyOnStrand(self, std::move(method), std::move(params));
    co_await self->actor.perform(std::move(task));
}

Task<void> StdioTransport::close()
{
    const Self self = shared_from_this();
    Task<void> task = closeOnStrand(self);
    co_await self->actor.perform(std::move(task));
}

// Starting

Task<void> StdioTransport::startOnStrand(Self self, MCPServerConfiguration configuration, Texts secrets)
{
    const auto given = wiping(std::move(secrets));
    requireStdio(configuration);
    if (closed)
        throw closedError();
    const auto waiting = std::make_shared<Closers>();
    closers = waiting;
    std::function<void(Continuation<Process>)> begin = [&](Continuation<Process> launched) {
        launching = spawn(actor.executor(), launch(parts, std::move(configuration), given, std::move(launched)));
    };
    std::function<void()> told = [this] { beginClosing(); };
    Process launched;
    std::exception_ptr error;
    try {
        launched = co_await suspendToTheEnd<Process>(std::move(begin), std::move(told));
    } catch (...) {
        error = std::current_exception();
    }
    launching.reset();
    givingUp.cancel();
    if (closed) { // meanwhile, and whoever did waits for this
        if (launched)
            launched->kill(); // nobody has spoken to it yet
        spawnDetached(actor.executor(), finishClosing(self, waiting));
        co_await throwIfCancelled();
        throw closedError();
    }
    if (error)
        std::rethrow_exception(error);
    process = std::move(launched);
    reader = spawn(actor.executor(), readAll(weak_from_this(), process));
}

Task<void> StdioTransport::giveUpLaunching(Weak weak, Clock &clock)
{
    co_await clock.sleep(2 * closeStep);
    const Self self = weak.lock();
    if (self && self->launching)
        self->launching->cancel();
}

Task<void> StdioTransport::readAll(Weak weak, Process process)
{
    for (;;) {
        co_await throwIfCancelled();
        const std::string bytes = co_await process->read();
        Self self = weak.lock();
        if (!self)
            co_return;
        if (bytes.empty())
            co_return self->beginClosing(); // this is how the end of a server is noticed
        self->receive(bytes);
        self.reset();
        co_await yieldOnce(); // one that prints without end must not keep others from the strand
    }
}

// Sending

Task<JSONValue> StdioTransport::requestOnStrand(Self, std::string method, JSONValue params)
{
    co_await throwIfCancelled();
    if (closed || !process || !process->isRunning())
        throw AppError(AppError::Kind::mcp, "The MCP server is disconnected.");
    const std::int64_t id = ++sequence;
    const Cancelling cancelling = method == "initialize" ? Cancelling::isSilent : Cancelling::tellsServer;
    std::string line = lineOf(ServerMessage::request(id, std::move(method), std::move(params)));
    std::function<void(Continuation<JSONValue>)> begin = [&](Continuation<JSONValue> reply) {
        expect(id, cancelling, std::move(reply));
        write(std::move(line));
    };
    bool cancelled = false;
    try {
        co_return co_await suspend<JSONValue>(std::move(begin));
    } catch (const Cancelled &) {
        cancelled = true;
    }
    if (cancelled)
        cancel(id, cancelling);
    throw Cancelled();
}

Task<void> StdioTransport::notifyOnStrand(Self, std::string method, JSONValue params)
{
    send(ServerMessage::notification(std::move(method), std::move(params)));
    co_return;
}

void StdioTransport::send(const JSONValue &message)
{
    if (closed || !process)
        throw closedError();
    write(lineOf(message));
}

void StdioTransport::write(std::string line)
{
    auto failed = [weak = weak_from_this(), strand = actor.executor()] {
        runLater(strand, [weak] {
            if (const Self self = weak.lock())
                self->beginClosing();
        });
    };
    process->write(std::move(line), std::move(failed));
    if (process->unwritten() > mostUnwritten)
        beginClosing(); // it does not read
}

void StdioTransport::sendIfPossible(const JSONValue &message)
{
    try {
        send(message);
    } catch (const AppError &) {
    }
}

void StdioTransport::expect(std::int64_t id, Cancelling cancelling, Continuation<JSONValue> reply)
{
    pending.emplace(id, std::move(reply));
    timeouts.emplace(id, spawn(actor.executor(), expireLater(weak_from_this(), parts.clock, id, cancelling)));
}

Task<void> StdioTransport::expireLater(Weak weak, Clock &clock, std::int64_t id, Cancelling cancelling)
{
    co_await clock.sleep(replyTimeout);
    if (const Self self = weak.lock())
        self->expire(id, cancelling);
}

void StdioTransport::expire(std::int64_t id, Cancelling cancelling)
{
    if (!pending.contains(id))
        return;
    if (cancelling == Cancelling::tellsServer)
        sendIfPossible(ServerMessage::cancellation(id));
    if (const auto waiting = forget(id))
        waiting->fail(failure(AppError(AppError::Kind::mcp, "The MCP server timed out.")));
}

void StdioTransport::cancel(std::int64_t id, Cancelling cancelling)
{
    if (cancelling == Cancelling::tellsServer)
        sendIfPossible(ServerMessage::cancellation(id));
    forget(id); // its caller has its `Cancelled` already
}

std::optional<Continuation<JSONValue>> StdioTransport::forget(std::int64_t id)
{
    timeouts.erase(id);
    auto found = pending.extract(id);
    return found ? std::optional(std::move(found.mapped())) : std::nullopt;
}

// Receiving

void StdioTransport::receive(std::string_view bytes)
{
    buffer.append(bytes);
    while (const auto line = buffer.next()) {
        if (!handle(*line))
            return beginClosing();
    }
    if (buffer.isTooLong())
        beginClosing();
}

/// False when the line breaks the protocol.
bool StdioTransport::handle(std::string_view line)
{
    auto message = ServerMessage::read(line);
    if (auto *request = std::get_if<ServerMessage::Request>(&message)) {
        sendIfPossible(ServerMessage::answer(std::move(*request)));
    } else if (auto *reply = std::get_if<ServerMessage::Reply>(&message)) {
        const auto waiting = forget(reply->id);
        if (waiting && reply->rejected)
            waiting->fail(failure(AppError(AppError::Kind::mcp, "The MCP server rejected the request.")));
        else if (waiting)
            waiting->resume(std::move(reply->result));
    }
    return !std::holds_alternative<ServerMessage::Violation>(message);
}

// Closing

Task<void> StdioTransport::closeOnStrand(Self)
{
    beginClosing();
    std::function<void(Continuation<void>)> begin = [this](Continuation<void> done) {
        if (const auto waiting = closers.lock())
            waiting->push_back(std::move(done));
        else
            done.resume(); // it has come to its end
    };
    co_await suspendToTheEnd<void>(std::move(begin), [] {});
}

void StdioTransport::beginClosing()
{
    if (std::exchange(closed, true))
        return;
    failPending();
    if (launching) { // which ends first, or is given up
        givingUp = spawn(actor.executor(), giveUpLaunching(weak_from_this(), parts.clock));
        return;
    }
    const auto waiting = std::make_shared<Closers>();
    closers = waiting;
    spawnDetached(actor.executor(), finishClosing(shared_from_this(), waiting));
}

void StdioTransport::failPending()
{
    timeouts.clear();
    for (auto &[id, waiting] : std::exchange(pending, {}))
        waiting.fail(failure(AppError(AppError::Kind::mcp, "The MCP server disconnected.")));
}

Task<void> StdioTransport::finishClosing(Self self, std::shared_ptr<Closers> closers)
{
    if (self->process)
        co_await endServer(self->parts.clock, self->process);
    self->reader.cancel();
    self->process = nullptr;
    self->closers.reset();
    for (const auto &waiting : *closers)
        waiting.resume();
}

Task<void> StdioTransport::endServer(Clock &clock, Process process)
{
    process->closeInput();
    if (!process->isRunning())
        co_return;
    co_await clock.sleep(closeStep);
    if (!process->isRunning())
        co_return;
    process->terminate();
    co_await clock.sleep(closeStep);
    if (process->isRunning())
        process->kill();
}

} // namespace korvane
