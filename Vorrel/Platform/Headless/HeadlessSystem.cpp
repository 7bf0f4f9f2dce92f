#include "Vorrel/Platform/Headless/HeadlessSystem.h"

#include <algorithm>

namespace korvane {

Task<SystemOutcome> HeadlessSystemControl::lockScreen()
{
    _requests.push_back("lock");
    co_return lockOutcome;
}

Task<SystemOutcome> HeadlessSystemControl::sleep()
{
    _requests.push_back("sleep");
    co_return sleepOutcome;
}

Task<SystemOutcome> HeadlessSystemControl::emptyTrash()
{
    _requests.push_back("trash");
    co_return trashOutcome;
}

Task<bool> HeadlessSystemControl::openFolder(std::string path)
{
    _requests.push_back("open " + path);
    co_return opensFolders;
}

Task<bool> HeadlessSystemControl::openSettings(SettingsPage page)
{
    constexpr const char *names[] = {"settings keyboard", "settings login items", "settings file privacy"};
    _requests.push_back(names[static_cast<std::size_t>(page)]);
    co_return opensSettings;
}

Task<bool> HeadlessDialogs::confirm(std::string title, std::string detail)
{
    Question question{Question::Kind::confirm, std::move(title), std::move(detail), {}};
    const Answer answer = co_await ask(std::move(question));
    co_return answer.has_value();
}

Task<void> HeadlessDialogs::failure(std::string title, std::string detail)
{
    Question question{Question::Kind::failure, std::move(title), std::move(detail), {}};
    co_await ask(std::move(question));
}

Task<std::optional<std::vector<std::string>>> HeadlessDialogs::choose(Choice choice)
{
    Question question{Question::Kind::choose, choice.title, choice.message, std::move(choice)};
    co_return co_await ask(std::move(question));
}

Task<HeadlessDialogs::Answer> HeadlessDialogs::ask(Question question)
{
    _asked.push_back(std::move(question));
    if (!prepared.empty()) {
        Answer answer = std::move(prepared.front());
        prepared.pop_front();
        co_return answer;
    }
    const std::uint64_t number = _asked.size();
    std::function<void(Continuation<Answer>)> begin = [this, number](Continuation<Answer> answered) {
        waiting.push_back(Standing{number, std::move(answered)});
    };
    std::exception_ptr ended;
    try {
        co_return co_await suspend<Answer>(std::move(begin));
    } catch (...) {
        ended = std::current_exception();
    }
    // Whoever asked is gone, and the dialog with it.
    std::erase_if(waiting, [number](const Standing &one) { return one.number == number; });
    std::rethrow_exception(ended);
}

void HeadlessDialogs::answer(Answer answer)
{
    if (waiting.empty()) {
        prepared.push_back(std::move(answer));
        return;
    }
    const Standing oldest = std::move(waiting.front());
    waiting.pop_front();
    oldest.answered.resume(std::move(answer));
}

Task<bool> HeadlessPasteboard::setText(std::string text)
{
    if (refuses)
        co_return false;
    this->text = std::move(text);
    ++writes;
    co_return true;
}

void HeadlessActivationSender::post()
{
    ++posts;
    if (receiver)
        receiver->receive();
}

void HeadlessStatusItem::show(std::string symbol, std::string description, std::vector<StatusMenuEntry> menu)
{
    _shown = true;
    _symbol = std::move(symbol);
    _description = std::move(description);
    _menu = std::move(menu);
}

std::vector<std::string> HeadlessStatusItem::titles() const
{
    std::vector<std::string> titles;
    for (const auto &entry : _menu)
        titles.push_back(entry.title);
    return titles;
}

bool HeadlessStatusItem::choose(const std::string &title) const
{
    const auto entry = std::ranges::find(_menu, title, &StatusMenuEntry::title);
    if (entry == _menu.end() || !entry->action)
        return false;
    const auto action = entry->action;
    action();
    return true;
}

} // namespace korvane
