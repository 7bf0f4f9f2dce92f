#include "CommandCore/IndexedFile.h"

#include "Support/Base64.h"
#include "Support/Text.h"

namespace korvane {

JSONValue FileRecord::json() const
{
    JSONValue::Object object{
        {"name", displayable(name)}, {"path", displayable(path)}, {"isDirectory", isDirectory}, {"size", double(size)}};
    if (modified)
        object.emplace("modified", *modified);
    if (!isValidUTF8(path))
        object.emplace("pathBytes", base64(path));
    return object;
}

std::string lastPathComponent(const std::string &path)
{
    const auto end = path.find_last_not_of('/');
    if (end == path.npos)
        return path.substr(0, 1);
    const auto slash = path.rfind('/', end);
    return path.substr(slash == path.npos ? 0 : slash + 1, end - (slash == path.npos ? 0 : slash + 1) + 1);
}

std::string deletingLastPathComponent(const std::string &path)
{
    const auto end = path.find_last_not_of('/');
    if (end == path.npos)
        return path.substr(0, 1);
    const auto slash = path.rfind('/', end);
    if (slash == path.npos)
        return {};
    const auto parentEnd = path.find_last_not_of('/', slash);
    return parentEnd == path.npos ? "/" : path.substr(0, parentEnd + 1);
}

std::string beginningBelow(const std::string &folder) { return folder == "/" ? folder : folder + "/"; }

} // namespace korvane
