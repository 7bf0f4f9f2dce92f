#pragma once

#include "Vorrel/Palette/PaletteState.h"
#include "tests/support/Await.h"
#include "tests/support/HeadlessDesktop.h"
#include "tests/support/ScriptedAI.h"

#include <deque>

/// A palette that a test types into and looks at: the second front end.
namespace korvane::test {

/// Answers file searches when and how the test says.
class ScriptedIndex final : public FileIndex {
public:
    void addRoot(std::string path) override { added.push_back(std::move(path)); }
    Strings added; ///< Folders that were to be indexed.
    Task<std::vector<FileRecord>> search(std::string query, std::optional<std::string> directory) override;

    /// Answers the oldest search that waits.
    void answer(std::vector<FileRecord> files);
    void fail(std::exception_ptr error);

    Strings queries; ///< Every query that arrived.
    std::vector<FileRecord> files; ///< What a search finds at once, by a plain containment test of its name.
    bool holds = false; ///< Searches wait for `answer` or `fail`.
    Milliseconds startDelay{0};
    Clock *clock = nullptr; ///< For `startDelay`.
    bool started = false, stopped = false;
    int rebuilds = 0;
    Strings removed; ///< Identifiers of roots that were to be removed.
    void rebuild() override { ++rebuilds; }
    void removeRoot(std::string id) override { removed.push_back(std::move(id)); }
    /// What the settings show.
    void show(std::vector<IndexRoot> roots, std::string status, bool scanning = false)
    {
        _roots = std::move(roots);
        _statusText = std::move(status);
        _isScanning = scanning;
    }
    Task<void> start() override
    {
        if (clock)
            co_await clock->sleep(startDelay);
        started = true;
    }
    Task<void> stop() override
    {
        stopped = true;
        co_return;
    }

private:
    std::vector<Continuation<std::vector<FileRecord>>> waiting;
};

/// Answers clipboard searches with set rows, or fails.
class ScriptedClipboard final : public ClipboardService {
public:
    void start() override { started = true; }
    void stop() override { started = false; }
    Task<Rows> search(std::string query) override;

    Strings queries;
    Rows rows;
    std::exception_ptr failure;
    bool started = false;
};

class ScriptedShortcuts final : public ShortcutsService {
public:
    CommandRegistry::Commands commands() const override { return family; }
    void cancelRun() override { ++cancelled; }
    void refresh(bool force) override { refreshes.push_back(force); }
    void start() override { started = true; }
    void stop() override { started = false; }

    CommandRegistry::Commands family;
    int cancelled = 0;
    std::vector<bool> refreshes;
    bool started = false;
};

class ScriptedAgents final : public AgentStore {
public:
    explicit ScriptedAgents(Executor loop);
    Task<void> load() override;
    std::vector<Agent> list;
    ScriptedSkills &skillFiles;
    ToolRegistry &offered() { return *ownTools; } ///< What an Agent may be given.

private:
    ScriptedAgents(Executor loop, std::unique_ptr<ToolRegistry> tools);
    std::unique_ptr<ToolRegistry> ownTools;
};

/// Answers whether a file opens when and how the test says, on the thread of the test.
class ScriptedProbe {
public:
    /// For a coordinator that this outlives.
    FilePreviewAccess::Asking asking();
    /// Lets the oldest question that waits have its answer.
    void answer();

    Strings asked; ///< Every path, in order.
    std::optional<FileAccessFailure::Reason> failure; ///< What is answered.
    bool holds = false; ///< Questions wait for `answer`.

private:
    std::deque<std::function<void()>> waiting;
};

class TestPalette : public HeadlessDesktop {
public:
    explicit TestPalette(Strings applicationRoots = {});
    ~TestPalette();

    // Arranging
    /// Adds a command that remembers its runs in `ran`. More of it may be set in `fields`.
    TestPalette &command(std::string title, CommandResultFields fields = {});
    /// Adds a file to what the index finds.
    TestPalette &file(std::string path);
    /// Notes a past use of a row, `days` before now.
    void used(const std::string &id, int times, double daysAgo = 0);
    /// Runs `PaletteState::start` to its end.
    void start();

    // Acting
    void type(std::string text) { state->setInputText(std::move(text)), settle(); }
    void wait(Milliseconds time) { clock.advance(time); }
    void settle() { loop.runUntilIdle(); }
    void run() { state->execute(), settle(); }
    void run(const CommandAction &action) { state->execute(action), settle(); }

    // Looking
    Strings titles() const;
    Strings ids() const;
    std::string selected() const; ///< Title of the selected row; empty without one.
    int selectedIndex() const { return state->selection(); }
    const CommandAction &action(const std::string &rowTitle, const std::string &id) const;
    std::string error() const { return state->error().value_or(""); }
    std::int64_t usesOf(const std::string &id); ///< As the store has it.

    ScriptedIndex *index = nullptr;
    ScriptedClipboard *clipboard = nullptr;
    ScriptedShortcuts *shortcuts = nullptr;
    ScriptedAgents *agents = nullptr;
    std::shared_ptr<AppServices> services;
    ModelScript model; ///< Answers what is asked in the mode `ai`.
    ScriptedProbe probe;
    std::unique_ptr<ActionCoordinator> coordinator;
    std::shared_ptr<PaletteState> state;
    Strings ran; ///< Titles of the actions that ran, in order.
    Strings log; ///< "hide", "focus", "settings", in order.
};

/// A record as the index gives it.
FileRecord fileRecord(std::string path);

} // namespace korvane::test
