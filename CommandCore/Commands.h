#pragma once

#include "Support/Task.h"

#include <array>
#include <concepts>
#include <cstdint>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// The vocabulary of everything that the palette lists: a source is a `Command`, a row is a
/// `CommandResult`, what a row can do is a `CommandAction`. Platform-free.
namespace korvane {

/// A failure with the sentence that the user sees; the one error type that services throw.
class AppError : public std::exception {
public:
    enum class Kind {
        recoverable, ///< Cured by changing the input or trying again.
        permission, ///< The system or the user refused.
        network, ///< The model provider could not be used.
        configuration, ///< Stored or entered configuration is not usable.
        toolExecution, ///< A tool, launch, process or shortcut failed while running.
        database, ///< The local store failed.
        mcp ///< An MCP connection failed.
    };

    AppError(Kind kind, std::string sentence) : _kind(kind), sentence(std::move(sentence)) { }

    Kind kind() const { return _kind; }
    /// The sentence, whatever the kind.
    const std::string &errorDescription() const { return sentence; }
    const char *what() const noexcept override { return sentence.c_str(); }
    bool operator==(const AppError &other) const { return _kind == other._kind && sentence == other.sentence; }

    /// Any error as text for the user: "Operation cancelled." for a cancellation, an `AppError`'s own
    /// sentence, one fixed sentence for everything else. Foreign wording never passes through.
    static std::string friendly(const std::exception_ptr &error);

private:
    Kind _kind;
    std::string sentence;
};

/// What an access to a file can fail with. Its sentences and ways out belong to the palette.
class FileAccessFailure : public std::exception {
public:
    enum class Reason { permission, missing, offline, unavailable, timeout, busy };
    explicit FileAccessFailure(Reason reason) : _reason(reason) { }
    Reason reason() const { return _reason; }
    const char *what() const noexcept override { return "file access failure"; }

private:
    Reason _reason;
};

/// How an action proceeds once it may run.
struct ActionFlow {
    enum class Kind {
        openWith, ///< Offers the applications that can open `path`.
        preview, ///< Toggles the file preview of `path`.
        applicationInput, ///< Asks for files (a folder when `folders`), then launches the application at `path`.
        direct, ///< Runs `execute`.
        arguments ///< Turns the palette into the argument input of the selected application.
    };
    Kind kind = Kind::direct;
    std::string path;
    std::vector<std::string> arguments;
    bool folders = false;

    static ActionFlow direct() { return {}; }
    static ActionFlow openWith(std::string path) { return {Kind::openWith, std::move(path), {}, false}; }
    static ActionFlow preview(std::string path) { return {Kind::preview, std::move(path), {}, false}; }
    static ActionFlow argumentInput() { return {Kind::arguments, {}, {}, false}; }
    static ActionFlow applicationInput(std::string path, std::vector<std::string> arguments, bool folders)
    {
        return {Kind::applicationInput, std::move(path), std::move(arguments), folders};
    }
    bool operator==(const ActionFlow &) const = default;
};

/// Marks an action as the target of a fixed keyboard shortcut.
enum class ActionKey { preview, reveal, copyPath };
std::string_view rawValue(ActionKey key);
/// The hint shown to the user, with its blanks: "⌘ Y", "⌘ ↵", "⌘ ⇧ C".
std::string_view label(ActionKey key);

/// The gate that an action passes before it runs. Only `destructive` asks the user.
enum class ActionRole { normal, write, destructive };
std::string_view rawValue(ActionRole role);

/// What happens to the palette after an action has succeeded.
enum class ActionDismissal {
    inherited, ///< Hide unless the row keeps the palette open.
    keepOpen, ///< Never hide.
    onSuccess ///< Always hide.
};

/// What a row shows at its left: a named symbol, or the icon of a file.
struct CommandIcon {
    enum class Kind { symbol, file };
    Kind kind = Kind::symbol;
    std::string value; ///< Name of the symbol, or path of the file.

    static CommandIcon symbol(std::string name) { return {Kind::symbol, std::move(name)}; }
    static CommandIcon file(std::string path) { return {Kind::file, std::move(path)}; }
    bool operator==(const CommandIcon &) const = default;
};

/// A text of any length that costs nothing to copy: shared and never changed.
class SharedText {
public:
    template <std::convertible_to<std::string> Text>
    SharedText(Text &&text) : shared(std::make_shared<const std::string>(std::forward<Text>(text)))
    {
    }
    const std::string &whole() const { return *shared; }
    bool operator==(const SharedText &other) const { return whole() == other.whole(); }

private:
    std::shared_ptr<const std::string> shared;
};

/// What the preview of a row shows.
struct PreviewResource {
    enum class Kind { text, file };
    Kind kind = Kind::text;
    SharedText value; ///< The text, or the path of the file.

    static PreviewResource text(SharedText text) { return {Kind::text, std::move(text)}; }
    static PreviewResource file(std::string path) { return {Kind::file, std::move(path)}; }
    bool operator==(const PreviewResource &) const = default;
};

/// Section and filter of a row. The raw value is the heading of its section.
enum class ResultKind { application, command, file, shortcut, other };
inline constexpr std::array allResultKinds{
    ResultKind::application, ResultKind::command, ResultKind::file, ResultKind::shortcut, ResultKind::other};
std::string_view rawValue(ResultKind kind);

/// The filter tabs, in their order.
enum class SearchCategory { all, applications, files, shortcuts };
inline constexpr std::array allSearchCategories{
    SearchCategory::all, SearchCategory::applications, SearchCategory::files, SearchCategory::shortcuts};
std::string_view rawValue(SearchCategory category);

struct SearchRequest {
    std::string query;
    SearchCategory category = SearchCategory::all;
    bool operator==(const SearchRequest &) const = default;
};

/// One thing that a row can do. A value; `execute` runs on the main thread and may suspend and throw.
struct CommandAction {
    std::string id; ///< Unique within its row.
    std::string title; ///< Label in the action list.
    std::optional<std::string> shortcut = {}; ///< Display text of a key hint.
    std::optional<ActionKey> key = {};
    ActionDismissal dismissal = ActionDismissal::inherited;
    ActionFlow flow = {};
    ActionRole role = ActionRole::normal;
    std::function<Task<void>()> execute = {}; ///< The work of a `direct` flow; empty does nothing.
};

/// What a `CommandResult` is made of; `kind` and `preview` may be left to be derived.
struct CommandResultFields {
    std::string id;
    std::string title;
    std::optional<std::string> subtitle = {};
    std::vector<std::string> keywords = {};
    CommandIcon icon = {};
    bool keepsOpen = false;
    std::optional<SharedText> previewText = {};
    std::optional<ResultKind> kind = {};
    std::optional<PreviewResource> preview = {};
    std::vector<CommandAction> actions = {};
};

/// One row of the palette; a value.
struct CommandResult {
    /// Without a `kind`, the prefix of the identifier decides: "app:", "file:", "shortcut:" or else a
    /// command. Without a `preview`, a `previewText` becomes one.
    explicit CommandResult(CommandResultFields fields);

    std::string id; ///< Stable: selection, usage and retry go by it.
    std::string title; ///< Main line; what the ranker matches first.
    std::optional<std::string> subtitle;
    std::vector<std::string> keywords; ///< Extra match terms.
    CommandIcon icon;
    std::vector<CommandAction> actions; ///< The first is the default; without any the row cannot be run.
    std::optional<SharedText> previewText;
    bool keepsOpen; ///< Default dismissal: a success with `inherited` leaves the palette open.
    ResultKind kind;
    std::optional<PreviewResource> preview;
};

/// A row as it is passed around: shared and never changed. A changed row is another object.
using Row = std::shared_ptr<const CommandResult>;
using Rows = std::vector<Row>;

inline Row makeRow(CommandResultFields fields) { return std::make_shared<const CommandResult>(std::move(fields)); }

/// Exists so that building a row can gain inputs later.
struct CommandContext { };

/// A source of one palette row. Main thread only.
class Command {
public:
    virtual ~Command() = default;
    /// Unique in a registry, with the prefix of its source. Never changes.
    virtual const std::string &id() const = 0;
    /// The row as it is now: an unchanged row is returned as the same object, a changed one as a new object.
    /// Asked for at every keystroke unless the command `isFixed`.
    virtual Row result(const CommandContext &context) const = 0;
    /// Whether `result` gives one and the same object for the whole life of the command.
    virtual bool isFixed() const { return false; }
};

/// A command that wraps a finished row.
class StaticCommand final : public Command {
public:
    explicit StaticCommand(CommandResultFields fields) : value(makeRow(std::move(fields))) { }
    const std::string &id() const override { return value->id; }
    Row result(const CommandContext &) const override { return value; }
    bool isFixed() const override { return true; }

    const Row value;
};

} // namespace korvane
