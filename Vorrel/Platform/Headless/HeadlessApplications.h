#pragma once

#include "Vorrel/Platform/ApplicationLauncher.h"
#include "Vorrel/Platform/ApplicationSource.h"
#include "Vorrel/Platform/FolderWatcher.h"
#include "Vorrel/Platform/Workspace.h"

#include <array>
#include <map>
#include <mutex>
#include <string_view>
#include <variant>

/// Applications, their launch, their folders and their files, in memory.
namespace korvane {

/// The roots of a system whose applications are bundles, in their order. "~" is the home folder.
inline constexpr std::array<std::string_view, 5> bundleRoots{
    "/Applications",
    "~/Applications",
    "/System/Applications",
    "/System/Library/CoreServices/Applications",
    "/System/Volumes/Preboot/Cryptexes/App/System/Applications",
};

/// Bundles, folders with the extension "app", whose information dictionaries are made up. The folders
/// themselves lie on the disk, where the caller has made them.
class HeadlessApplicationSource : public ApplicationSource {
public:
    using Information = std::map<std::string, std::variant<std::string, double>>;

    explicit HeadlessApplicationSource(std::vector<std::string> roots) : folders(std::move(roots)) { }

    /// What the bundle at `path` says of itself; a bundle never described cannot be opened.
    void describe(std::string path, Information information);
    void setActions(std::string path, std::vector<ApplicationOwnAction> actions);
    /// Makes the bundle hide earlier ones of its identifier.
    void setListed(std::string path, bool listed);

    std::vector<std::string> roots() const override { return folders; }
    std::string extension() const override { return "app"; }
    std::optional<ApplicationEntry> read(const std::string &root, const std::string &path) const override;
    std::vector<ApplicationOwnAction> actions(const std::string &path) const override;

private:
    const std::vector<std::string> folders;
    mutable std::mutex mutex; // a scan runs on a thread of the pool
    std::map<std::string, Information> described;
    std::map<std::string, std::vector<ApplicationOwnAction>> ownActions;
    std::map<std::string, bool> listed;
};

/// Remembers what it was asked to start. Main thread only.
class HeadlessApplicationLauncher : public ApplicationLauncher {
public:
    struct Launch {
        std::string path;
        std::vector<std::string> arguments;
        std::string actionId = {}; ///< Empty for a launch of the application itself.
        bool operator==(const Launch &) const = default;
    };

    Task<void> launch(std::string path, std::vector<std::string> arguments) override;
    Task<void> launchAction(std::string path, std::string actionId) override;

    std::vector<Launch> launches; ///< Oldest first; refused ones are not among them.
    bool refuses = false;

private:
    void start(Launch launch);
};

/// Speaks when it is told to. Main thread only.
class HeadlessFolderWatcher : public FolderWatcher {
public:
    AsyncStream<bool> watch(std::vector<std::string> folders) override;

    /// Tells everyone who watches `folder` or a folder above it.
    void change(const std::string &folder);
    /// Folders now watched, in the order of the calls.
    std::vector<std::string> watched() const;

private:
    struct Watch {
        std::vector<std::string> folders;
        AsyncStream<bool> stream;
    };
    std::shared_ptr<std::map<int, Watch>> watches = std::make_shared<std::map<int, Watch>>();
    int next = 0;
};

/// Remembers what it was asked to open and to show. Main thread only.
class HeadlessWorkspace : public Workspace {
public:
    Task<bool> open(std::string pathOrURL) override;
    Task<void> openWith(std::string path, std::string application) override;
    Task<void> reveal(std::string path) override;
    Task<std::vector<ApplicationHandler>> handlers(std::string path) override;

    std::vector<std::string> opened; ///< Paths and addresses, oldest first; refused ones are not among them.
    std::vector<std::pair<std::string, std::string>> openedWith; ///< Path and application.
    std::vector<std::string> revealed;
    bool refuses = false; ///< `open` gives false and `openWith` throws.
    std::vector<ApplicationHandler> offered; ///< What `handlers` gives for every path.
    int asked = 0; ///< How often `handlers` was asked.
};

} // namespace korvane
