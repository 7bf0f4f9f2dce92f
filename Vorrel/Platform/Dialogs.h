#pragma once

#include "Support/Task.h"

#include <optional>
#include <string>
#include <vector>

namespace korvane {

/// Questions to the user in windows of the system, over the program's own window where one is up.
/// Main thread; the palette stays responsive while one stands. Texts are given localised.
class Dialogs {
public:
    virtual ~Dialogs() = default;

    /// A warning with "Cancel", the default, and "Allow". True for "Allow" alone.
    virtual Task<bool> confirm(std::string title, std::string detail) = 0;
    /// A failure that the user can only take note of.
    virtual Task<void> failure(std::string title, std::string detail) = 0;

    struct Choice {
        bool folders = false; ///< Choose a folder, otherwise files.
        bool multiple = false;
        std::string title;
        std::string message;
        std::string prompt; ///< Label of the accepting button; empty for the system's own.
        std::string directory; ///< Where to begin; empty for the system's own choice.
        std::string saveAs =
            {}; ///< Asks where to write a file, which is called so at first; empty to choose among what is there.
    };
    /// The chosen paths; nothing when the user cancelled.
    virtual Task<std::optional<std::vector<std::string>>> choose(Choice choice) = 0;
};

} // namespace korvane
