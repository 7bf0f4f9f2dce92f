#pragma once

#include "Vorrel/Platform/PasteboardWatching.h"

#include <algorithm>
#include <functional>

namespace korvane {

/// A clipboard in memory onto which anybody copies. Main thread only.
class HeadlessPasteboardWatching final : public PasteboardWatching {
public:
    std::int64_t changeCount() const override { return changes; }
    Task<std::vector<std::string>> types() override
    {
        onQuestion();
        co_return offered;
    }
    Task<std::optional<std::string>> string(Form form, std::size_t limit) override
    {
        onQuestion();
        const auto &content = form == Form::text ? text : url;
        questions.push_back(form == Form::text ? "text" : "url");
        co_return content && content->size() <= limit && !concealed() ? content : std::nullopt;
    }
    Task<bool> mayHoldText() override { co_return text.has_value() || concealed(); }
    Task<std::optional<std::string>> frontmostApplication() override { co_return frontmost; }

    /// Somebody copies a text, with these other forms and marks.
    void copy(std::optional<std::string> newText, std::vector<std::string> types = {})
    {
        ++changes;
        text = std::move(newText);
        url.reset();
        offered = std::move(types);
    }

    bool concealed() const { return std::ranges::find(offered, concealedType) != offered.end(); }

    std::int64_t changes = 7;
    std::optional<std::string> text, url, frontmost;
    std::vector<std::string> offered;
    std::vector<std::string> questions; ///< Forms that were asked for, in their order.
    std::function<void()> onQuestion = [] {}; ///< Called before each answer.
};

} // namespace korvane
