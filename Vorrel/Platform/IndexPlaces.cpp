#include "Vorrel/Platform/IndexPlaces.h"

namespace korvane {

namespace {

std::string ownFolder(const UserFolders &folders) { return folders.korvane().value_or(folders.home + "/Korvane"); }

} // namespace

IndexPlaces IndexPlaces::macOS(const UserFolders &folders)
{
    const std::string &home = folders.home;
    return {.defaultRoots = {home, "/Applications", "/System/Applications", "/Library"},
        .skippedPrefixes = {ownFolder(folders), home + "/Library/CloudStorage", home + "/Library/Mobile Documents",
            home + "/Library/Developer/XCTestDevices", home + "/Library/Developer/CoreSimulator", home + "/.Trash"},
        .looseCount = 6,
        .aliasPrefix = "/System/Volumes/Data"};
}

IndexPlaces IndexPlaces::linux(const UserFolders &folders)
{
    const std::string &home = folders.home;
    return {.defaultRoots = {home, "/opt", "/usr/local", "/srv"},
        .skippedPrefixes = {ownFolder(folders), folders.data.value_or(home + "/.local/share") + "/Trash", home + "/.cache",
            "/proc", "/sys", "/dev", "/run"},
        .looseCount = 2, // "/dev" is also the beginning of "/devel"
        .aliasPrefix = {}};
}

} // namespace korvane
