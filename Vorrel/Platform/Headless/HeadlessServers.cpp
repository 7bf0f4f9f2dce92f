#include "Vorrel/Platform/Headless/HeadlessServers.h"

#include <algorithm>

namespace korvane {

namespace {

constexpr std::size_t largestPiece = 64 * 1024; // bytes

} // namespace

/// The program's end of a server.
class HeadlessServer::Process final : public ServerProcess {
public:
    explicit Process(std::shared_ptr<HeadlessServer> server) : server(std::move(server)) { }
    ~Process() override { server->note("let go", Endurance::endsWithKill); }

    Task<std::string> read() override
    {
        const auto from = server;
        for (;;) {
            {
                const std::scoped_lock lock(from->mutex);
                if (!from->pieces.empty()) {
                    std::string piece = std::move(from->pieces.front());
                    from->pieces.pop_front();
                    co_return piece;
                }
                if (!from->outputOpen)
                    co_return std::string();
            }
            std::function<void(Continuation<void>)> begin = [from](Continuation<void> done) {
                std::unique_lock lock(from->mutex);
                if (from->pieces.empty() && from->outputOpen) {
                    from->reader = std::move(done);
                    return;
                }
                lock.unlock();
                done.resume();
            };
            co_await suspend<void>(std::move(begin));
        }
    }

    void write(std::string bytes, std::function<void()> failed) override
    {
        std::unique_lock lock(server->mutex);
        if (server->writesFail || !server->running) {
            lock.unlock();
            return failed();
        }
        if (!server->reads) {
            server->unread += bytes.size();
            return;
        }
        std::vector<std::string> lines;
        server->incomplete += bytes;
        for (auto end = server->incomplete.find('\n'); end != std::string::npos; end = server->incomplete.find('\n')) {
            lines.push_back(server->incomplete.substr(0, end));
            server->incomplete.erase(0, end + 1);
        }
        server->_heard.insert(server->_heard.end(), lines.begin(), lines.end());
        lock.unlock();
        if (server->hear)
            for (const std::string &line : lines)
                server->hear(*server, line);
    }

    std::size_t unwritten() const override
    {
        const std::scoped_lock lock(server->mutex);
        return server->unread;
    }
    void closeInput() override { server->note("close input", Endurance::endsWithInput); }
    bool isRunning() const override { return server->isRunning(); }
    void terminate() override { server->note("terminate", Endurance::endsWithTerminate); }
    void kill() override { server->note("kill", Endurance::endsWithKill); }

private:
    const std::shared_ptr<HeadlessServer> server;
};

void HeadlessServer::print(std::string_view bytes)
{
    std::unique_lock lock(mutex);
    if (!outputOpen)
        return;
    for (std::size_t at = 0; at < bytes.size(); at += largestPiece)
        pieces.emplace_back(bytes.substr(at, largestPiece));
    wakeReader(std::move(lock));
}

void HeadlessServer::say(std::string_view message) { print(std::string(message) + "\n"); }

void HeadlessServer::closeOutput()
{
    std::unique_lock lock(mutex);
    outputOpen = false;
    wakeReader(std::move(lock));
}

void HeadlessServer::exit() { end(std::unique_lock(mutex)); }

void HeadlessServer::stopReading()
{
    const std::scoped_lock lock(mutex);
    reads = false;
}

void HeadlessServer::failWrites()
{
    const std::scoped_lock lock(mutex);
    writesFail = true;
}

std::vector<std::string> HeadlessServer::heard() const
{
    const std::scoped_lock lock(mutex);
    return _heard;
}

std::vector<std::string> HeadlessServer::steps() const
{
    const std::scoped_lock lock(mutex);
    return _steps;
}

bool HeadlessServer::isRunning() const
{
    const std::scoped_lock lock(mutex);
    return running;
}

void HeadlessServer::note(const char *step, Endurance reached)
{
    std::unique_lock lock(mutex);
    _steps.emplace_back(step);
    if (reached >= endurance)
        end(std::move(lock));
}

void HeadlessServer::end(std::unique_lock<std::mutex> lock)
{
    running = outputOpen = false;
    wakeReader(std::move(lock));
}

void HeadlessServer::wakeReader(std::unique_lock<std::mutex> lock)
{
    const auto woken = std::exchange(reader, std::nullopt);
    lock.unlock();
    if (woken)
        woken->resume();
}

Task<bool> HeadlessServers::isExecutable(std::string path)
{
    co_return std::ranges::find(executables, path) != executables.end();
}

Task<std::shared_ptr<ServerProcess>> HeadlessServers::launch(std::shared_ptr<const Program> program)
{
    if (onLaunch)
        onLaunch();
    if (launchFailure)
        std::rethrow_exception(launchFailure);
    const std::shared_ptr<HeadlessServer> server(new HeadlessServer(*program, endurance, hear));
    {
        const std::scoped_lock lock(mutex);
        _launched.push_back(server);
    }
    co_return std::make_shared<HeadlessServer::Process>(server);
}

std::vector<std::shared_ptr<HeadlessServer>> HeadlessServers::launched() const
{
    const std::scoped_lock lock(mutex);
    return _launched;
}

std::size_t HeadlessServers::running() const
{
    const auto all = launched();
    return static_cast<std::size_t>(std::ranges::count_if(all, [](const auto &server) { return server->isRunning(); }));
}

} // namespace korvane
