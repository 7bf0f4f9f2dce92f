#include "Vorrel/Platform/Pasteboard.h"

#include "CommandCore/Commands.h"

namespace korvane {

Task<void> Pasteboard::copy(std::string text)
{
    const bool taken = co_await setText(std::move(text));
    if (!taken)
        throw AppError(AppError::Kind::recoverable, "Could not update the clipboard.");
}

} // namespace korvane
