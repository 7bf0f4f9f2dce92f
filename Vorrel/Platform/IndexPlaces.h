#pragma once

#include "Vorrel/Platform/UserFolders.h"

#include <array>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace korvane {

/// Which folders are indexed where the user has named none, and which never are.
struct IndexPlaces {
    std::vector<std::string> defaultRoots; ///< In order. Those after the first count only where they exist.
    std::vector<std::string> skippedPrefixes; ///< In order; the program's own data folder is the first.
    std::size_t looseCount = 0; ///< So many of them, from the first on, stand for their siblings too where events are concerned.
    std::string aliasPrefix; ///< A second way to the same files that events may name: left out of their paths.

    /// The prefixes near which no event counts, though the folder only begins with the same letters.
    std::span<const std::string> looselySkipped() const { return std::span(skippedPrefixes).first(looseCount); }

    static IndexPlaces macOS(const UserFolders &folders);
    static IndexPlaces linux(const UserFolders &folders);
};

/// Parts of paths in which much changes and little is looked for: they rank low and wait longer.
inline constexpr std::array<std::string_view, 12> noiseFragments{"/Library/", "/Caches/", "/node_modules/", "/.git/", "/build/",
    "/dist/", "/out/", "/target/", "/DerivedData/", "/__pycache__/", "/venv/", "/Pods/"};

/// Folders of the home folder in which most of what a user looks for is kept.
inline constexpr std::array<std::string_view, 4> preferredFolders{"Documents", "Downloads", "Desktop", "Pictures"};

} // namespace korvane
