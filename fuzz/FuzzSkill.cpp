#include "CommandCore/Commands.h"
#include "Support/Text.h"
#include "Vorrel/AI/SkillLoader.h"

#include <cstdint>
#include <cstdlib>

using namespace korvane;

namespace {

void require(bool holds)
{
    if (!holds)
        std::abort();
}

bool isOneLine(const std::string &text) { return text.find('\n') == text.npos; }

} // namespace

/// Skills of anybody: read or refused with a sentence, and what was read is read the same when it is written in the plainest
/// form.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), size);
    if (!isValidUTF8(text))
        return 0; // refused before it is looked into
    try {
        const Skill skill = SkillLoader::parse(text, "SKILL.md");
        require(!skill.name.empty() && !skill.description.empty() && !skill.instructions.empty());
        require(isOneLine(skill.name) && isOneLine(skill.description) && trimmed(skill.instructions) == skill.instructions);
        const std::string plain = "---\nname: \"" + skill.name + "\"\ndescription: '" + skill.description + "'\n---\n";
        require(SkillLoader::parse(plain + skill.instructions, "SKILL.md") == skill);
    } catch (const AppError &error) {
        require(error.kind() == AppError::Kind::configuration);
    }
    return 0;
}
