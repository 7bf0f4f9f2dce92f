#pragma once

#include "Vorrel/Platform/ServerLaunching.h"

#include <deque>
#include <exception>
#include <mutex>
#include <optional>
#include <string_view>

namespace korvane {

/// A server in memory, as a test plays it. It outlives the process that the program holds of it. Any thread.
class HeadlessServer {
public:
    /// What it takes to end the server.
    enum class Endurance { endsWithInput, endsWithTerminate, endsWithKill };
    /// Called with each complete line that the server is sent, without the line feed, on the thread that wrote it.
    using Hear = std::function<void(HeadlessServer &server, const std::string &line)>;

    void print(std::string_view bytes); ///< As one piece for the reader, or more where it is longer than a piece may be.
    void say(std::string_view message); ///< One line.
    void closeOutput(); ///< The reader comes to the end; the server runs on.
    void exit(); ///< It ends by itself.
    /// From now on bytes are not read (then they count as unwritten), or cannot be written.
    void stopReading();
    void failWrites();

    std::vector<std::string> heard() const; ///< Every complete line that was written to the server.
    /// "close input", "terminate" and "kill" as the program did them, and "let go" when nothing holds the process any more.
    std::vector<std::string> steps() const;
    bool isRunning() const;

    const ServerLaunching::Program program; ///< As it was launched.

private:
    friend class HeadlessServers;
    class Process;
    HeadlessServer(ServerLaunching::Program program, Endurance endurance, Hear hear) :
        program(std::move(program)), endurance(endurance), hear(std::move(hear))
    {
    }
    void note(const char *step, Endurance reached);
    void end(std::unique_lock<std::mutex> lock);
    void wakeReader(std::unique_lock<std::mutex> lock);

    const Endurance endurance;
    const Hear hear;

    mutable std::mutex mutex;
    std::deque<std::string> pieces; ///< Printed and not read yet.
    std::optional<Continuation<void>> reader;
    std::string incomplete; ///< What was heard behind the last line feed.
    std::vector<std::string> _heard, _steps;
    std::size_t unread = 0; ///< Bytes written to a server that does not read.
    bool running = true, reads = true, writesFail = false, outputOpen = true;
};

/// Servers in memory. Any thread, but for what is set before use.
class HeadlessServers final : public ServerLaunching {
public:
    Task<bool> isExecutable(std::string path) override;
    Task<std::shared_ptr<ServerProcess>> launch(std::shared_ptr<const Program> program) override;

    // Set before use
    std::vector<std::string> executables{"/opt/server"};
    HeadlessServer::Endurance endurance = HeadlessServer::Endurance::endsWithInput;
    HeadlessServer::Hear hear; ///< What every server does with what it hears.
    std::exception_ptr launchFailure;
    std::function<void()> onLaunch;

    /// Every server that was launched, in that order.
    std::vector<std::shared_ptr<HeadlessServer>> launched() const;
    std::size_t running() const;

private:
    mutable std::mutex mutex;
    std::vector<std::shared_ptr<HeadlessServer>> _launched;
};

} // namespace korvane
