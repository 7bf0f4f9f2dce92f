#include "Vorrel/Platform/Linux/ChildOutput.h"

#include "Support/OwnThread.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace korvane {

namespace {

void reap(pid_t id)
{
    if (::waitpid(id, nullptr, WNOHANG) == id)
        return;
    runOnOwnThread([id] {
        while (::waitpid(id, nullptr, 0) < 0 && errno == EINTR) { }
    });
}

Task<void> endAfter(Clock &clock, std::weak_ptr<BoundChild> weak, Milliseconds time)
{
    co_await clock.sleep(time);
    if (const auto child = weak.lock())
        child->end();
}

/// Nothing for more than `limit` bytes.
Task<std::optional<std::string>> readAll(const Descriptor &output, std::size_t limit)
{
    std::string all;
    std::array<char, 16384> part;
    while (all.size() <= limit) {
        co_await waitUntilReadable(output);
        const auto count = ::read(output.get(), part.data(), part.size());
        if (count < 0 && (errno == EAGAIN || errno == EINTR))
            continue;
        if (count < 0)
            co_return std::nullopt;
        if (count == 0)
            co_return all;
        all.append(part.data(), static_cast<std::size_t>(count));
    }
    co_return std::nullopt;
}

} // namespace

Task<std::shared_ptr<BoundChild>> BoundChild::start(Executor pool, ChildProcess::Options options)
{
    options.endsWithUs = true;
    Actor starting(std::move(pool));
    auto work = [options = std::move(options)](std::stop_token) -> std::shared_ptr<BoundChild> {
        try {
            return std::make_shared<BoundChild>(spawnPipedProcess(options));
        } catch (const std::system_error &) {
            return nullptr;
        }
    };
    co_return co_await starting.run(std::move(work));
}

BoundChild::BoundChild(PipedProcess started) : process(std::move(started)) { process.errors.reset(); }

void BoundChild::end()
{
    if (process.id == 0)
        return;
    ::kill(-process.id, SIGKILL);
    reap(std::exchange(process.id, 0));
}

Task<bool> BoundChild::endedWell(Executor pool)
{
    if (process.id == 0)
        co_return false;
    Actor waiting(std::move(pool));
    // Left in the table of processes until the main thread knows: its number must not become another's before.
    auto wait = [id = process.id](std::stop_token) {
        siginfo_t how{};
        while (::waitid(P_PID, static_cast<id_t>(id), &how, WEXITED | WNOWAIT) < 0 && errno == EINTR) { }
        return how.si_code == CLD_EXITED && how.si_status == 0;
    };
    const bool well = co_await waiting.run(std::move(wait));
    end();
    co_return well;
}

Task<std::optional<std::string>> outputOf(
    Executor mainThread, Executor pool, Clock &clock, ChildProcess::Options options, std::size_t limit, Milliseconds time)
{
    const double begin = clock.uptime();
    const std::shared_ptr<BoundChild> child = co_await BoundChild::start(pool, std::move(options));
    if (!child)
        co_return std::nullopt;
    const Milliseconds left = time - Milliseconds(static_cast<int>((clock.uptime() - begin) * 1000));
    Task<void> task = endAfter(clock, child, left);
    const TaskHandle limiting = spawn(std::move(mainThread), std::move(task));
    auto all = co_await readAll(child->output(), limit);
    if (!all)
        child->end();
    const bool well = co_await child->endedWell(std::move(pool));
    co_return well ? std::move(all) : std::nullopt;
}

} // namespace korvane
