#pragma once

#include "CommandCore/Skill.h"
#include "Support/OwnThread.h"
#include "Vorrel/Platform/UserFolders.h"

#include <string>
#include <vector>

namespace korvane {

/// The folders in which skills are looked for, in this order.
struct SkillLocations {
    static std::vector<std::string> roots(const UserFolders &folders);
};

/// Reads skills: regular files named SKILL.md, UTF-8 and at most 64,000 bytes, with a name and a description in front. Bounded
/// and strict, for anybody may have written them. All file work is begun by the given starter: a folder may lie on a volume that
/// does not answer. A caller that is cancelled waits for none of it.
class SkillLoader {
public:
    explicit SkillLoader(WorkStarter detached = runOnOwnThread) : detached(std::move(detached)) { }
    virtual ~SkillLoader() = default;

    struct Scan {
        std::vector<Skill> skills; ///< By their paths.
        std::vector<std::string> warnings; ///< One sentence for each thing that could not be read, localised.
    };
    /// Looks through the folders and the first 200 that lie directly in each, by their paths; hidden ones are passed over, and
    /// folders that are not there. A skill to which several ways lead is found once, under its path without links. Throws
    /// nothing but `Cancelled`.
    virtual Task<Scan> scan(std::vector<std::string> roots);
    /// The skills of these files, in this order, under these paths. The first failure ends it: `configuration` with its sentence,
    /// or the system's error for a file that cannot be read.
    virtual Task<std::vector<Skill>> load(std::vector<std::string> paths);
    /// A skill from the text of its file: a line "---", lines with "name: …" and "description: …", a line "---", instructions.
    /// A value may stand in quotes, which are dropped, or be ">" or "|" with the text in indented lines below it, which are
    /// joined by blanks. Throws `configuration` with what is wrong.
    static Skill parse(std::string_view text, std::string path);

private:
    const WorkStarter detached;
};

} // namespace korvane
