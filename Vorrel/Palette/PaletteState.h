#pragma once

#include "CommandCore/FileSearchQuery.h"
#include "CommandCore/SearchTable.h"
#include "Support/MainLoop.h"
#include "Support/Observed.h"
#include "Vorrel/Palette/ActionCoordinator.h"
#include "Vorrel/Shell/AppServices.h"

namespace korvane {

/// What the palette shows and does. Views read it and call it; they decide nothing.
///
/// Main thread only; every operation returns at once unless it is a `Task`. A row is run only if it
/// belongs to what is now in the list, and an answer is shown only if it answers what is now asked.
/// Made as a shared object: callbacks of services hold it weakly.
class PaletteState : public std::enable_shared_from_this<PaletteState> {
public:
    enum class Mode { commands, files, clipboard, ai };

    /// The ways out that a failure offers; none by default.
    struct FailureRecovery {
        bool rerunAction = false;
        bool refreshResults = false;
        bool openAccessSettings = false;
        bool operator==(const FailureRecovery &) const = default;
    };

    /// The list to return to when a child list is left.
    struct Snapshot {
        std::string query;
        Rows results;
        int selection = 0;
        bool operator==(const Snapshot &) const = default;
    };

    /// `services` and `coordinator` outlive the state.
    PaletteState(AppServices &services, ActionCoordinator &coordinator);

    // What the user does
    void setInputText(std::string text); ///< Text of the field; ignored while busy.
    void setQuery(std::string text); ///< A different text starts a search.
    void setActionQuery(std::string text);
    void select(int index); ///< The row under a click.
    void selectAction(int index);
    void move(int delta); ///< +1 or -1; wraps at both ends.
    void execute(std::optional<CommandAction> action = {}); ///< Submit; see the class of each flow in `CommandCore/Commands.h`.
    void escape(); ///< Back one level, or hide.
    void setCategory(SearchCategory category);
    void setFileKind(FileKind kind);
    void setFileSort(std::string sort);
    void chooseFileDirectory();
    void resetFileDirectory();
    void toggleActions();
    void performKey(ActionKey key); ///< Runs the selected row's action of that key, if it has one.
    void togglePreview();
    void retrySearch(); ///< The one "try again": reruns the failed action or searches anew.
    void openFilePrivacySettings();
    void beginArguments(); ///< Turns the field into the argument line of the selected application.
    void exitArguments();
    void leaveChild();

    /// Shows this one row alone, for a front end that has no list; its actions then run as everywhere.
    void showOnly(Row row);

    // What the window's controller does
    void enter(Mode mode); ///< Changes the mode and starts afresh.
    Task<void> start(); ///< Once, at application start; a second call returns at once.
    void introduceKey(HotkeyConfiguration key); ///< Names the key that opens the palette, until it hides.
    void cancelWork(); ///< Ends the present session's work.
    Task<void> refreshApplications(); ///< Only if the list is more than 15 seconds old.
    void refreshQuicklinks();
    void reloadShortcutCommands();

    // What the views show
    std::string inputText() const { return _showsActions ? _actionQuery.get() : _query.get(); }
    Row selectedResult() const; ///< Null when nothing is selected.
    /// The actions of the panel that pass its filter, in order.
    std::vector<CommandAction> filteredActions() const;
    std::string aiIntroduction() const;

    bool started() const { return _started; }
    const std::optional<std::string> &fileDirectory() const { return _fileDirectory; }
    Mode mode() const { return _mode; }
    const std::string &query() const { return _query; }
    SearchCategory category() const { return _category; }
    const std::string &actionQuery() const { return _actionQuery; }
    const std::optional<std::string> &childTitle() const { return _childTitle; }
    const Rows &results() const { return _results; }
    int selection() const { return _selection; } ///< May be out of range: then nothing is selected.
    const FailureRecovery &errorRecovery() const { return _errorRecovery; }
    const std::optional<std::string> &error() const { return _error; } ///< An English sentence, a key of `L10n`.
    bool showsPreview() const { return _showsPreview; }
    bool showsActions() const { return _showsActions; }
    int actionSelection() const { return _actionSelection; }
    bool searchingFiles() const { return _searchingFiles; }
    bool searching() const { return _searching; }
    bool busy() const { return _busy; }
    const std::optional<Agent> &activeAgent() const { return _activeAgent; }
    const std::string &aiOutput() const { return _aiOutput; }
    const std::string &aiStatus() const { return _aiStatus; }
    const Row &argumentTarget() const { return _argumentTarget; } ///< Null outside argument input.
    const std::vector<AppLaunchRecord> &argumentRecents() const { return _argumentRecents; }
    /// The key that opens the palette, where its user does not know it yet.
    const std::optional<HotkeyConfiguration> &newKey() const { return _newKey; }
    int sessionGeneration() const { return _sessionGeneration; }

    ActionCoordinator &coordinator;
    CommandRegistry registry;
    AppServices &services;

    std::function<void()> focusInput = [] {};
    std::function<void()> openSettings = [] {};
    std::function<void()> hide = [] {};

    /// Calls `changed` after a change of any observed property, the coordinator's included. May be called many
    /// times in one step; views gather the calls and draw once.
    [[nodiscard]] std::vector<Subscription> observe(const std::function<void()> &changed);

    // Observed storage. Written by the operations above alone.
    Observed<bool> _started{false};
    Observed<std::optional<std::string>> _fileDirectory;
    Observed<Mode> _mode{Mode::commands};
    Observed<std::string> _query;
    Observed<SearchCategory> _category{SearchCategory::all};
    Observed<std::string> _actionQuery;
    Observed<std::optional<std::string>> _childTitle;
    Observed<Rows> _results;
    Observed<int> _selection{0};
    Observed<FailureRecovery> _errorRecovery;
    Observed<std::optional<std::string>> _error;
    Observed<bool> _showsPreview{false};
    Observed<bool> _showsActions{false};
    Observed<int> _actionSelection{0};
    Observed<bool> _searchingFiles{false};
    Observed<bool> _searching{false};
    Observed<bool> _busy{false};
    Observed<std::optional<Agent>> _activeAgent;
    Observed<std::string> _aiOutput;
    Observed<std::string> _aiStatus;
    Observed<Row> _argumentTarget;
    Observed<std::vector<AppLaunchRecord>> _argumentRecents;
    Observed<std::optional<HotkeyConfiguration>> _newKey;

private:
    /// What an answer must still match to be shown.
    struct Question {
        std::string query;
        SearchCategory category;
        Mode mode;
        bool operator==(const Question &) const = default;
    };

    // The query pipeline
    void search();
    void showArgumentRows();
    void showChildRows();
    void searchClipboard();
    Rows baseRows();
    Rows rankedRows();
    Row calculatorRow() const;
    Row argumentRow(const AppLaunchRecord &record);
    void show(Rows rows, const std::string &keep);
    Question question() const { return {_query, _category, _mode}; }
    bool filesOnly() const { return _mode == Mode::files || _category == SearchCategory::files; }
    std::string selectedIdentifier() const;
    bool listIsPlain() const; ///< A refresh behind the user's back may replace the list.
    static Task<void> fileTask(
        std::weak_ptr<PaletteState> weak, AppServices &services, Question asked, Rows base, bool filesOnly);
    static Task<void> clipboardTask(std::weak_ptr<PaletteState> weak, AppServices &services, std::string query);
    static Task<void> chooseDirectoryTask(std::weak_ptr<PaletteState> weak, AppServices &services);
    static Task<void> loadRecents(std::weak_ptr<PaletteState> weak, AppServices &services, std::string id);
    static Task<void> refreshQuicklinksTask(std::weak_ptr<PaletteState> weak, int generation);
    static Task<void> launchLine(std::weak_ptr<PaletteState> weak, std::string line);
    static Task<void> enterAgent(std::weak_ptr<PaletteState> weak, Agent agent);
    void rewriteFileQuery(const std::function<void(FileSearchQuery &)> &change);

    // Running an action
    struct Run {
        CommandAction action;
        Row row;
        int generation;
    };
    static Task<void> run(std::shared_ptr<PaletteState> self, Run run);
    Task<void> runFlow(const Run &run);
    Task<void> finishSuccess(const Run &run);
    void fail(const Run &run, std::exception_ptr error);
    static Task<void> runArgumentRow(CommandAction action);
    Task<void> recordUse(std::string id);
    void launchWithArguments(std::string text);
    static Task<void> argumentLaunch(std::shared_ptr<PaletteState> self, std::string id, std::string text, int generation);
    Task<void> openWith(std::string path, int generation);
    void clearFailure();
    void closeActions() { setShowsActions(false); }
    void setShowsActions(bool shows);
    void endRun();

    // A request to a model
    struct Request {
        std::string query;
        std::optional<Agent> agent;
        int generation;
    };
    void askAI();
    static Task<void> answer(std::weak_ptr<PaletteState> weak, AppServices &services, Request request);
    static Task<Conversation> converse(std::weak_ptr<PaletteState> weak, AppServices &services, const Request &request);
    void endAnswer(const std::exception_ptr &failure, int generation);

    // Sources
    Task<void> startSources();
    void registerStaticCommands();
    void registerWindowCommands();
    static Task<void> showing(std::weak_ptr<PaletteState> weak, void (*show)(PaletteState &));
    void updateApplicationCommands();
    void reloadAgentCommands();
    Task<void> reloadQuicklinks();
    template <class Reload> void reporting(Reload reload);

    std::vector<CommandAction> actionSnapshot;
    Rows childResults;
    std::optional<Snapshot> parentSnapshot;
    std::optional<CommandAction> failedAction;
    Row failedResult;
    TaskHandle queryTask, aiTask;
    int _sessionGeneration = 0;
    SearchTable searchTable;

    MainThreadOnly confined;
};

} // namespace korvane
