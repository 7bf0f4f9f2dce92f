#pragma once

#include "Vorrel/Platform/Pasteboard.h"

namespace korvane {

/// The desktop's clipboard, written through the toolkit. Main thread only.
class QtPasteboard : public Pasteboard {
public:
    Task<bool> setText(std::string text) override;
};

} // namespace korvane
