#pragma once

#include <optional>
#include <string>
#include <vector>

namespace korvane {

/// What one application's file says of itself.
struct ApplicationEntry {
    std::string name;
    /// Stable identifier; empty when the file has none, and its path then stands in.
    std::string identifier;
    /// False for an entry that is not to be listed and hides earlier ones of its identifier.
    bool listed = true;
};

/// One action that an application's own file offers beside opening it.
struct ApplicationOwnAction {
    std::string id; ///< As the file names it.
    std::string title;
    bool operator==(const ApplicationOwnAction &) const = default;
};

/// Where installed applications are found and how their files are read. Any thread, one at a time;
/// every call looks at the disk anew.
class ApplicationSource {
public:
    virtual ~ApplicationSource() = default;

    /// Folders to search, in their order: of two applications with one identifier the later wins.
    virtual std::vector<std::string> roots() const = 0;
    /// The extension, without its point, of an application's file or folder.
    virtual std::string extension() const = 0;
    /// Reads the application at `path`, found below `root`. Nothing for what is no application at all:
    /// such a file is passed over. Never throws, whatever the bytes.
    virtual std::optional<ApplicationEntry> read(const std::string &root, const std::string &path) const = 0;
    /// Actions that the application's own file declares, in its order.
    virtual std::vector<ApplicationOwnAction> actions(const std::string &path) const = 0;
};

} // namespace korvane
