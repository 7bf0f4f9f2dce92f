// A thousand made skills, each read by the program and by a second reader that was written for this test alone.
#include "CommandCore/Commands.h"
#include "Vorrel/AI/SkillLoader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>
#include <regex>
#include <sstream>

using namespace korvane;
using Strings = std::vector<std::string>;

namespace {

/// What comes of a text, as one text: its failure or its parts.
std::string outcome(const std::string &name, const std::string &description, const std::string &instructions)
{
    return "name[" + name + "] description[" + description + "] instructions[" + instructions + "]";
}

std::string readByTheProgram(const std::string &text)
{
    try {
        const Skill skill = SkillLoader::parse(text, "");
        return outcome(skill.name, skill.description, skill.instructions);
    } catch (const AppError &error) {
        return error.errorDescription();
    }
}

/// The second reader: patterns over lines.
class SecondReader {
public:
    explicit SecondReader(const std::string &text)
    {
        std::istringstream stream(replaced(text, "\r(?=\n)") + "\n");
        for (std::string line; std::getline(stream, line);)
            lines.push_back(line);
    }

    std::string read()
    {
        const auto fence = std::ranges::find(lines.begin() + 1, lines.end(), "---");
        if (lines[0] != "---" || fence == lines.end())
            return "SKILL.md needs name and description frontmatter.";
        readFields(Strings(lines.begin() + 1, fence));
        const auto description = replaced(fields["description"], ends);
        if (fields["name"].empty() || description.empty())
            return "SKILL.md requires a name and description.";
        std::string body;
        for (auto line = fence + 1; line != lines.end(); ++line)
            body += *line + "\n";
        body = replaced(body, bodyEnds);
        return body.empty() ? "SKILL.md has no instructions." : outcome(fields["name"], description, body);
    }

private:
    static constexpr const char *ends = "^[ \t]+|[ \t]+$", *bodyEnds = "^\\s+|\\s+$";

    static std::string replaced(const std::string &text, const char *pattern)
    {
        static std::map<const char *, std::regex> known; // making one takes longer than using it
        return std::regex_replace(text, known.try_emplace(pattern, pattern).first->second, "");
    }

    void readFields(const Strings &front)
    {
        static const std::regex member("[ \t]*(name|description)[ \t]*:[ \t]*(.*?)[ \t]*");
        static const std::regex block("[>|]-?"), quoted("\"(.*)\"|'(.*)'"), indented("[ \t].*");
        for (std::size_t i = 0; i < front.size(); ++i) {
            std::smatch match, inside;
            if (!std::regex_match(front[i], match, member))
                continue;
            std::string value = match[2];
            if (std::regex_match(value, block)) {
                value.clear();
                for (; i + 1 < front.size() && std::regex_match(front[i + 1], indented); ++i)
                    value += " " + replaced(front[i + 1], ends);
            } else if (std::regex_match(value, inside, quoted)) {
                value = inside[1].str() + inside[2].str();
            }
            fields[match[1]] = value;
        }
    }

    Strings lines;
    std::map<std::string, std::string> fields;
};

/// Makes skills as people and programs write them, and some that are wrong.
class Maker {
public:
    std::string text()
    {
        std::string text = line(often() ? "---" : pick({"--- ", "", " ---", "----"}));
        for (int i = number(1, 8); i > 0; --i)
            text += member();
        if (often())
            text += field("name") + field("description");
        text += often() ? line("---") : pick({"--- ", "", "--", "..."});
        return text + body();
    }

private:
    int number(int least, int most) { return std::uniform_int_distribution(least, most)(random); }
    bool often() { return number(0, 11) > 0; }
    std::string pick(const Strings &from) { return from[std::size_t(number(0, int(from.size()) - 1))]; }
    std::string line(const std::string &text) { return text + pick({"\n", "\n", "\r\n"}); }
    std::string blanks() { return pick({"", "", " ", "  ", "\t", " \t "}); }
    std::string words()
    {
        return pick({"tides", "a: b", "潮汐 table", "it's \"so\"", "# note", "- item", "x", "key: >", "\\n", ""});
    }

    std::string value()
    {
        const std::string text = words();
        return pick({text, text, "\"" + text + "\"", "'" + text + "'", "\"" + text, "'" + text + "\"", "\"", "'", "''"});
    }
    std::string field(const std::string &key)
    {
        if (number(0, 2) > 0)
            return line(blanks() + key + blanks() + ":" + blanks() + value() + blanks());
        std::string text = line(key + ":" + blanks() + pick({">", "|", ">-", "|-", ">+", "|2"}) + blanks());
        for (int i = number(0, 4); i > 0; --i)
            text += line(pick({" ", "  ", "\t", ""}) + words() + blanks());
        return text;
    }
    std::string member()
    {
        switch (number(0, 5)) {
        case 0: return field("name");
        case 1: return field("description");
        case 2: return field(pick({"license", "Name", "names", "allowed-tools", "metadata", "", "description name"}));
        case 3: return line(pick({"# a comment", "# name: hidden", "", " ", "no colon", "- item: x"}));
        case 4: return line("metadata:") + line("  " + pick({"name", "author", "version"}) + ": " + value());
        default: return line(pick({"  indented", "\tname", "  - one", "tools: [a, b]"}));
        }
    }
    std::string body()
    {
        std::string text;
        for (int i = number(0, 5); i > 0; --i)
            text += line(pick({"# Title", "Do it.", "", "---", "  name: x", "\t", "潮汐", "```"}));
        return text;
    }

    std::mt19937 random{20'240'917}; // any fixed number
};

} // namespace

TEST(SkillForms, AThousandMadeFrontmattersAreReadAsASecondReaderReadsThem)
{
    Maker maker;
    std::map<std::string, int> kinds;
    for (int i = 0; i < 1000; ++i) {
        const std::string text = maker.text();
        const std::string read = readByTheProgram(text);
        ASSERT_EQ(read, SecondReader(text).read()) << text;
        ++kinds[read.starts_with("name[") ? "read" : read];
    }
    EXPECT_GT(kinds["read"], 300);
    EXPECT_EQ(kinds.size(), 4U) << "every way to fail occurs";
}
