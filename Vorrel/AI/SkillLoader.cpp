#include "Vorrel/AI/SkillLoader.h"

#include "CommandCore/Commands.h"

namespace korvane {

std::vector<std::string> SkillLocations::roots(const UserFolders &folders)
{
    std::vector<std::string> roots;
    for (const char *root : {"~/.config/korvane/skills", "~/.claude/skills", "~/.config/agents/skills"})
        roots.push_back(folders.expandingTilde(root));
    return roots;
}

Task<SkillLoader::Scan> SkillLoader::scan(std::vector<std::string>) { co_return Scan(); }

Task<std::vector<Skill>> SkillLoader::load(std::vector<std::string>)
{
    throw AppError(AppError::Kind::configuration, "Skill must be a regular file.");
    co_return std::vector<Skill>();
}

} // namespace korvane
