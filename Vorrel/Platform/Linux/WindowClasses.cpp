#include "Vorrel/Platform/Linux/WindowClasses.h"

#include <algorithm>

namespace korvane {

namespace {

std::optional<std::string> found(const std::map<std::string, std::string> &known, const std::vector<std::string> &classes)
{
    for (auto one = classes.rbegin(); one != classes.rend(); ++one) {
        std::string name = *one;
        std::ranges::transform(
            name, name.begin(), [](char letter) { return letter >= 'A' && letter <= 'Z' ? char(letter | 0x20) : letter; });
        if (const auto at = known.find(name); at != known.end())
            return at->second;
    }
    return std::nullopt;
}

} // namespace

Task<std::optional<std::string>> WindowClasses::identify(std::vector<std::string> classes)
{
    auto look = [this, classes = std::move(classes)](std::stop_token) {
        auto id = found(known, classes);
        const double now = clock.uptime();
        if (!id && (!readAt || now - *readAt > renewal)) {
            known = entries.identifiersByWindowClass();
            readAt = now;
            id = found(known, classes);
        }
        return id;
    };
    co_return co_await actor.run(std::move(look));
}

} // namespace korvane
