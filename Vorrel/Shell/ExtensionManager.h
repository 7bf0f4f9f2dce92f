#pragma once

#include "CommandCore/ExtensionManifest.h"
#include "Support/Task.h"

#include <map>

namespace korvane {

/// Holds the manifests of extensions; none are found yet.
class ExtensionManager {
public:
    explicit ExtensionManager(Executor pool) : actor(std::move(pool)) { }

    Actor actor; ///< The one place where the manifests are touched.
    std::map<std::string, ExtensionManifest> manifests;
};

} // namespace korvane
