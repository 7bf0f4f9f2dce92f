#include "CommandCore/Calculator.h"
#include "CommandCore/Commands.h"
#include "CommandCore/FileSearchQuery.h"
#include "CommandCore/SearchRanker.h"
#include "Support/Text.h"

#include <cstdlib>

using namespace korvane;

namespace {

void require(bool truth)
{
    if (!truth)
        std::abort();
}

} // namespace

/// What the user types into the field: folded, ranked, calculated and parsed as a file query.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), size);
    const std::string once = folded(text);
    require(folded(once) == once);
    require(isValidUTF8(displayable(text)));
    std::size_t bytes = 0;
    for (const auto character : characters(text))
        bytes += character.size();
    require(bytes == text.size());
    if (const auto value = Calculator::value(text))
        require(!Calculator::format(*value).empty());
    // A text is its own title, whatever it is; one that folds to nothing matches as an empty query.
    const auto score = SearchRanker{}.score(text, text, {}, {}, 0);
    require(score.has_value());
    try {
        const FileSearchQuery query(text);
        const FileSearchQuery again(query.text());
        require(again.text() == query.text()); // writing is stable
    } catch (const AppError &) {
        // refusing is fine; anything else is a defect
    }
    return 0;
}
