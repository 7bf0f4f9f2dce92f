#pragma once

#include "Support/MainLoop.h"
#include "Vorrel/Palette/PaletteState.h"

#include <map>
#include <set>
#include <span>

namespace korvane {

/// The program's services for scripts: parses a command line, drives the same state as the window, prints.
///
/// Exit statuses: 0 done, also for an empty list; 1 with one sentence on standard error and nothing on
/// standard output when the answer is no or something failed; 2 for wrong usage. Works beside a running
/// Korvane: what only reads opens the store read-only, what writes waits up to 30 seconds for it.
class CommandLineTool {
public:
    struct Host {
        MainLoop &loop;
        Platform platform; ///< Its dialogs ask on the terminal, or refuse.
        std::function<void(std::string_view)> out, err;
        /// Told before anything runs whether consent was given on the command line.
        std::function<void(bool yes)> consent;
        /// All of the standard input; nothing when it is longer than that.
        std::function<std::optional<std::string>(std::size_t limit)> input = {};
        std::string workingDirectory = {}; ///< What relative folders on a command line are relative to.
        /// Shows a line of progress in place of the last one, an empty one when all is done; null without a terminal.
        std::function<void(std::string_view)> progress = {};
        /// Has `stop` called once, on the main thread, when the user wants the command to end; null where nobody can.
        std::function<void(std::function<void()> stop)> onInterrupt = {};
        AppServices::MakeProvider makeProvider = {}; ///< Null for the real provider.
    };

    explicit CommandLineTool(Host host) : host(std::move(host)) { }

    /// Runs one command line, without the program's name. Main thread; returns when it is done.
    int run(std::span<const std::string> arguments);

private:
    /// A command line taken apart.
    struct Line {
        std::vector<std::string> words;
        std::map<std::string, std::string, std::less<>> values; ///< Options that have a value, by their name.
        std::set<std::string> allowed; ///< Names of tools and of servers.
        std::vector<std::string> connected; ///< Identifiers of servers.
        bool json = false, yes = false, help = false, version = false;
        void give(const std::string &option, std::string value);
    };
    /// One list, for both ways of printing.
    struct Table {
        std::vector<std::vector<std::string>> plain;
        JSONValue::Array json;
    };
    enum class Use { Read, Write };
    class UsageError;

    static Line parse(std::span<const std::string> arguments);
    int dispatch(const Line &line);
    int calculate(const Line &line);
    int listApplications(const Line &line);
    int searchRows(const Line &line);
    int runRow(const Line &line);
    int writeQuery(const Line &line);
    int findFiles(const Line &line);
    int index(const Line &line);
    int shortcuts(const Line &line);
    int quicklink(const Line &line);
    int clipboard(const Line &line);
    int secret(const Line &line);
    int agents(const Line &line);
    int skills(const Line &line);
    int ask(const Line &line);
    int diagnostics(const Line &line);
    int mcp(const Line &line);
    int settings(const Line &line);

    // Requests to a model
    void readShortcuts(AppServices &services);
    void openAssistant(PaletteState &state, const Line &line);
    void answer(PaletteState &state, const std::string &text);

    // MCP servers
    int addServer(const std::string &path);
    int listServers(const Line &line);
    int removeServer(const std::string &id);
    int listTools(const std::string &id);
    int callTool(const std::string &id, const std::string &tool, const std::string &input);
    MCPServerConfiguration serverNamed(AppServices &services, const std::string &id);
    std::vector<MCPServerConfiguration> serversFor(AppServices &services, const Line &line);
    void withServers(
        AppServices &services, const std::vector<MCPServerConfiguration> &servers, const std::function<void()> &work);

    // Settings
    int showSettings(const Line &line);
    int changeSetting(const std::string &key, const std::string &value);
    void refuseWhileKorvaneRuns(std::string_view what) const;

    // What else the store holds
    int listQuicklinks(const Line &line);
    int listClipboard(const Line &line);
    int copyFromClipboard(const std::string &id);
    int listAgents(const Line &line);
    int saveAgent(const std::string &path);

    // The keyring
    int setSecret(const std::string &account);
    int showSecret(const Line &line);
    KeychainService keychain() const;

    // The index
    int showIndexStatus(const Line &line);
    int showIndexRoots(const Line &line);
    int changeIndex(const std::function<void(FileIndex &)> &change);
    int addIndexRoot(const std::string &folder);
    int removeIndexRoot(const std::string &id);
    void finishIndex(const FileIndex &index);
    void showProgress(const FileIndex &index, double began);
    std::string absolute(const std::string &path) const;

    void print(const Table &table, bool json) const;
    Task<std::shared_ptr<AppServices>> openServices(Use use);
    Row rowFor(PaletteState &state, const std::string &id) const;
    template <class T> T wait(Task<T> task);
    template <class T> T waitInterruptibly(Task<T> task);
    template <class T> class Waiting;

    Host host;
};

} // namespace korvane
