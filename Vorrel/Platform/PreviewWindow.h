#pragma once

#include "Vorrel/Platform/KeyPress.h"

#include <functional>
#include <string>

namespace korvane {

/// The one window that shows what is in a file, over the palette. Main thread; reading and decoding the file never hold
/// that up, whatever the file is.
class PreviewWindow {
public:
    virtual ~PreviewWindow() = default;

    /// What the owner of a preview is told. Neither is called inside `show` or `close`, nor after `close`.
    struct Events {
        std::function<bool(const KeyPress &)> keyPressed; ///< Before the window sees the key. True when it is consumed.
        std::function<void()> closed; ///< The user or the window manager closed the window.
    };

    /// Brings the program's window that has the keyboard now to the front again and gives it the keyboard, when called; may be
    /// called when that window is gone. Empty when none of the program's windows has the keyboard.
    virtual std::function<void()> keyWindow() = 0;
    /// Shows the file at the absolute `path` in front of all other windows and takes the keyboard. False when that cannot be.
    virtual bool show(const std::string &path, Events events) = 0;
    /// Nothing when no preview stands.
    virtual void close() = 0;
};

} // namespace korvane
