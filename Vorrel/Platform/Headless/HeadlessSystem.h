#pragma once

#include "Vorrel/Platform/Activation.h"
#include "Vorrel/Platform/Dialogs.h"
#include "Vorrel/Platform/LoginItem.h"
#include "Vorrel/Platform/Pasteboard.h"
#include "Vorrel/Platform/StatusItem.h"
#include "Vorrel/Platform/SystemControl.h"

#include <cerrno>
#include <deque>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

/// A system without a screen: everything that the program asks of it happens in memory, is remembered, and
/// goes as its owner has set it. Main thread only.
namespace korvane {

/// A machine that does nothing and keeps what it was asked.
class HeadlessSystemControl final : public SystemControl {
public:
    Task<SystemOutcome> lockScreen() override;
    Task<SystemOutcome> sleep() override;
    Task<SystemOutcome> emptyTrash() override;
    Task<bool> openFolder(std::string path) override;
    Task<bool> openSettings(SettingsPage page) override;

    SystemOutcome lockOutcome = SystemOutcome::done;
    SystemOutcome sleepOutcome = SystemOutcome::done;
    SystemOutcome trashOutcome = SystemOutcome::done;
    bool opensFolders = true;
    bool opensSettings = true;

    /// "lock", "sleep", "trash", "open " and the folder, "settings keyboard", "settings login items" and
    /// "settings file privacy", in their order.
    const std::vector<std::string> &requests() const { return _requests; }

private:
    std::vector<std::string> _requests;
};

/// Dialogs that stand until they are answered, by an answer given before or after.
class HeadlessDialogs final : public Dialogs {
public:
    Task<bool> confirm(std::string title, std::string detail) override;
    Task<void> failure(std::string title, std::string detail) override;
    Task<std::optional<std::vector<std::string>>> choose(Choice choice) override;

    /// One dialog as it was asked for. A choice has its words in `choice`.
    struct Question {
        enum class Kind { confirm, failure, choose };
        Kind kind;
        std::string title;
        std::string detail;
        Choice choice;
    };
    const std::vector<Question> &asked() const { return _asked; } ///< All, the oldest first.
    bool standing() const { return !waiting.empty(); } ///< Whether a dialog waits for its answer.

    /// Answers the oldest dialog that stands or, without one, the next that comes: "Allow", a choice of
    /// `paths`, a failure taken note of.
    void accept(std::vector<std::string> paths = {}) { answer(Answer(std::move(paths))); }
    /// The same for "Cancel".
    void refuse() { answer(std::nullopt); }

private:
    using Answer = std::optional<std::vector<std::string>>; // the chosen paths; nothing for "Cancel"

    Task<Answer> ask(Question question);
    void answer(Answer answer);

    struct Standing {
        std::uint64_t number;
        Continuation<Answer> answered;
    };
    std::vector<Question> _asked;
    std::deque<Standing> waiting;
    std::deque<Answer> prepared;
};

/// A session in memory that starts the program or does not.
class HeadlessLoginItem final : public LoginItem {
public:
    Status status() const override { return present; }
    void registerProgram() override
    {
        refuse();
        present = switchedOff ? Status::awaitingApproval : Status::enabled;
    }
    void unregister() override
    {
        refuse();
        present = Status::disabled;
    }

    Status present = Status::disabled; ///< As the system's settings may set it, too.
    bool switchedOff = false; ///< The system's settings keep it from starting.
    bool refuses = false; ///< Nothing can be noted.

private:
    void refuse() const
    {
        if (refuses)
            throw std::system_error(EACCES, std::generic_category());
    }
};

/// A clipboard in memory.
class HeadlessPasteboard final : public Pasteboard {
public:
    Task<bool> setText(std::string text) override;

    bool refuses = false; ///< Takes nothing, and keeps what it has.
    std::optional<std::string> text; ///< What is on the clipboard.
    int writes = 0; ///< How many texts were taken.
};

/// The first instance's ear for signals of the same process.
class HeadlessActivationReceiver final : public ActivationReceiver {
public:
    void observe(std::function<void()> activated) override { this->activated = std::move(activated); }
    /// One signal has come.
    void receive()
    {
        if (activated)
            activated();
    }

private:
    std::function<void()> activated;
};

/// Sends to `receiver`, or to nobody.
class HeadlessActivationSender final : public ActivationSender {
public:
    explicit HeadlessActivationSender(HeadlessActivationReceiver *receiver = nullptr) : receiver(receiver) { }
    void post() override;

    int posts = 0;

private:
    HeadlessActivationReceiver *receiver;
};

/// A status item that keeps its menu.
class HeadlessStatusItem final : public StatusItem {
public:
    void show(std::string symbol, std::string description, std::vector<StatusMenuEntry> menu) override;

    bool shown() const { return _shown; }
    const std::string &symbol() const { return _symbol; }
    const std::string &description() const { return _description; }
    const std::vector<StatusMenuEntry> &menu() const { return _menu; }
    std::vector<std::string> titles() const;
    /// Does what the entry of this title does. False when the menu has none.
    bool choose(const std::string &title) const;

private:
    bool _shown = false;
    std::string _symbol, _description;
    std::vector<StatusMenuEntry> _menu;
};

} // namespace korvane
