#include "CommandCore/Skill.h"

#include "Support/Base64.h"
#include "Support/Text.h"

namespace korvane {

JSONValue Skill::json() const
{
    JSONValue::Object members{
        {"name", name}, {"description", description}, {"instructions", instructions}, {"path", displayable(path)}};
    if (!isValidUTF8(path))
        members.emplace("pathBytes", base64(path));
    return members;
}

} // namespace korvane
