#pragma once

#include "Vorrel/Platform/PreviewWindow.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace korvane {

/// A preview without a screen: what it shows is kept, and a test is the user in front of it. Main thread only.
class HeadlessPreviewWindow final : public PreviewWindow {
public:
    std::function<void()> keyWindow() override
    {
        if (!hasKeyWindow)
            return {};
        return [this] {
            log.push_back("return");
            onReturn();
        };
    }
    bool show(const std::string &path, Events events) override
    {
        if (refuses)
            return false;
        log.push_back("show " + path);
        shown = path;
        told = std::move(events);
        return true;
    }
    void close() override
    {
        if (!std::exchange(shown, std::nullopt))
            return;
        log.push_back("close");
        told = {};
    }

    /// The user presses a key in the window. False when it is not consumed, or no preview stands.
    bool press(const KeyPress &key)
    {
        const auto pressed = told.keyPressed; // the window may be closed meanwhile
        return pressed && pressed(key);
    }
    /// The user closes the window by its own button.
    void closeByUser()
    {
        if (!std::exchange(shown, std::nullopt))
            return;
        log.push_back("closed");
        std::exchange(told, {}).closed();
    }

    std::optional<std::string> shown; ///< The file that the window shows.
    bool hasKeyWindow = true; ///< Whether a window of the program has the keyboard.
    bool refuses = false; ///< Shows nothing.
    std::function<void()> onReturn = [] {}; ///< Called when the keyboard is given back.
    std::vector<std::string> log; ///< "show /a.png", "close", "closed" (by the user), "return", in their order.

private:
    Events told;
};

} // namespace korvane
