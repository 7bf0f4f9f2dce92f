#pragma once

#include "Support/Descriptor.h"

#include <string_view>

namespace korvane {

/// Opens a folder for reading by a path of any length; links on the way and at its end are followed. Empty, with
/// `errno`, when it is no folder or may not be read.
Descriptor openFolder(std::string_view path);

/// Opens a folder below an open one by a path of any length relative to it, "a/b". Fails when any part of the path is
/// a link, so that what is opened is below `base` and nowhere else. Any thread; blocks.
Descriptor openFolderBelow(const Descriptor &base, std::string_view path);

} // namespace korvane
