#include "Vorrel/Shell/L10n.h"

#include "CommandCore/Commands.h"
#include "CommandCore/FileSearchQuery.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <optional>
#include <regex>
#include <set>
#include <unistd.h>

using namespace korvane;
namespace fs = std::filesystem;
using Strings = std::vector<std::string>;
using Texts = std::set<std::string>;

namespace {

std::string contentsOf(const fs::path &path)
{
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), {});
}

/// Resource folders in a temporary place, and the tables put back to none afterwards.
class L10nTest : public testing::Test {
protected:
    L10nTest()
    {
        std::string pattern = (fs::temp_directory_path() / "korvane-l10n-XXXXXX").string();
        root = ::mkdtemp(pattern.data());
    }
    ~L10nTest() override
    {
        L10n::use({});
        fs::remove_all(root);
    }

    /// Writes a table below one of the places, "" for the bundle itself.
    void table(const std::string &place, const std::string &folder, const std::string &file, const std::string &strings) const
    {
        const fs::path where = root / place / "Korvane_Vorrel.bundle" / folder;
        fs::create_directories(where);
        std::ofstream(where / file) << strings;
    }
    void localizable(const std::string &place, const std::string &folder, const std::string &strings) const
    {
        table(place, folder, "Localizable.strings", strings);
    }
    void use(const Strings &languages, const std::string &platform = "") const
    {
        L10n::use(L10n::load(
            {(root / "resources").string(), (root / "beside").string(), (root / "build").string(), languages, platform}));
    }

    fs::path root;
};

// The program's own tables and sources

const fs::path source = KORVANE_SOURCE;

L10n::Table programTable(const std::string &language, const std::string &file = "Localizable.strings")
{
    return L10n::parse(contentsOf(source / "resources/Korvane_Vorrel.bundle" / (language + ".lproj") / file));
}

Texts keysOf(const L10n::Table &table)
{
    Texts keys;
    for (const auto &[key, value] : table)
        keys.insert(key);
    return keys;
}

Texts without(const Texts &all, const Texts &some)
{
    Texts rest;
    std::ranges::set_difference(all, some, std::inserter(rest, rest.end()));
    return rest;
}

/// What a C++ source is made of, as far as texts go: names, string literals and single signs.
struct Token {
    enum class Kind { name, text, sign } kind;
    std::string value;
    bool is(const char *sign) const { return kind != Kind::text && value == sign; }
};
using Tokens = std::vector<Token>;

class Lexer {
public:
    explicit Lexer(std::string_view source) : rest(source) { }

    Tokens tokens()
    {
        Tokens tokens;
        while (skipUnimportant()) {
            if (rest.starts_with("R\"")) {
                tokens.push_back({Token::Kind::text, raw()});
            } else if (rest.front() == '"') {
                tokens.push_back({Token::Kind::text, literal()});
            } else if (rest.front() == '\'') {
                quoted('\'');
            } else if (nameCharacter(rest.front())) {
                tokens.push_back({Token::Kind::name, name()});
            } else {
                tokens.push_back({Token::Kind::sign, std::string(1, rest.front())});
                rest.remove_prefix(1);
            }
        }
        return joined(std::move(tokens));
    }

private:
    static bool nameCharacter(char c) { return std::isalnum(static_cast<unsigned char>(c)) || c == '_'; }

    bool skipUnimportant()
    {
        for (;;) {
            rest.remove_prefix(std::min(rest.find_first_not_of(" \t\r\n"), rest.size()));
            if (rest.starts_with("//"))
                skipPast("\n");
            else if (rest.starts_with("/*"))
                skipPast("*/");
            else if (rest.starts_with('#') && !rest.starts_with("##"))
                skipPast("\n"); // a directive: no texts there
            else
                return !rest.empty();
        }
    }

    void skipPast(std::string_view mark)
    {
        const auto at = rest.find(mark);
        rest.remove_prefix(at == std::string_view::npos ? rest.size() : at + mark.size());
    }

    std::string name()
    {
        std::string name;
        // A quote between digits separates them.
        while (!rest.empty()
            && (nameCharacter(rest.front())
                || (rest.front() == '\'' && std::isdigit(static_cast<unsigned char>(name.front()))))) {
            name.push_back(rest.front());
            rest.remove_prefix(1);
        }
        return name;
    }

    std::string quoted(char mark)
    {
        std::string inside;
        rest.remove_prefix(1);
        while (!rest.empty() && rest.front() != mark) {
            if (rest.front() == '\\' && rest.size() > 1) {
                inside.push_back('\\');
                rest.remove_prefix(1);
            }
            inside.push_back(rest.front());
            rest.remove_prefix(1);
        }
        rest.remove_prefix(std::min<std::size_t>(1, rest.size()));
        return inside;
    }

    /// A table's escapes are those of a literal.
    std::string literal()
    {
        const auto parsed = L10n::parse("\"key\" = \"" + quoted('"') + "\";");
        const auto entry = parsed.find("key");
        return entry == parsed.end() ? std::string() : entry->second;
    }

    std::string raw()
    {
        rest.remove_prefix(2);
        const std::string end = ")" + std::string(rest.substr(0, rest.find('('))) + "\"";
        rest.remove_prefix(std::min(end.size() - 1, rest.size()));
        const std::string inside(rest.substr(0, rest.find(end)));
        skipPast(end);
        return inside;
    }

    static Tokens joined(Tokens tokens)
    {
        Tokens joined;
        for (auto &token : tokens) {
            if (token.kind == Token::Kind::text && !joined.empty() && joined.back().kind == Token::Kind::text)
                joined.back().value += token.value;
            else
                joined.push_back(std::move(token));
        }
        return joined;
    }

    std::string_view rest;
};

/// Finds the texts of one source: literals given to L10n, sentences given to AppError, and sentences given to a
/// function of the same source that gives them to AppError.
class TextFinder {
public:
    explicit TextFinder(const std::string &source) : tokens(Lexer(source).tokens())
    {
        findConstants();
        findHelpers();
    }

    Texts texts()
    {
        for (std::size_t at = 0; at < tokens.size(); ++at) {
            if (const auto open = l10nCall(at))
                collect(*open + 1, tokens[at + 3].is("format"));
            else if (const auto sentence = sentenceOfError(at))
                collect(*sentence, false);
            else if (isHelperCall(at))
                collect(at + 2, false);
        }
        return found;
    }

private:
    bool matches(std::size_t at, std::initializer_list<const char *> signs) const
    {
        for (const char *sign : signs) {
            if (at >= tokens.size() || !tokens[at].is(sign))
                return false;
            ++at;
        }
        return true;
    }

    /// The opening parenthesis of `L10n::operation(`.
    std::optional<std::size_t> l10nCall(std::size_t at) const
    {
        if (!matches(at, {"L10n", ":", ":"}))
            return std::nullopt;
        for (const char *operation : {"text", "shown", "key", "format", "simplifiedChinese"}) {
            if (matches(at + 3, {operation, "("}))
                return at + 4;
        }
        return std::nullopt;
    }

    /// The first token of the sentence in `AppError(AppError::Kind::some, sentence`, with either bracket and with
    /// a name between.
    std::optional<std::size_t> sentenceOfError(std::size_t at) const
    {
        if (!matches(at, {"AppError", ":", ":", "Kind", ":", ":"}) || !matches(at + 7, {","}))
            return std::nullopt;
        return at + 8;
    }

    bool isHelperCall(std::size_t at) const { return helpers.contains(tokens[at].value) && matches(at + 1, {"("}); }

    /// Takes the literals, and the constants that stand for one, from `at` to the end of the surrounding call or, if
    /// `firstOnly`, of the first argument. Calls inside have their own say.
    void collect(std::size_t at, bool firstOnly)
    {
        int depth = 0;
        for (; at < tokens.size() && depth >= 0; ++at) {
            const Token &token = tokens[at];
            if (token.is("(") || token.is("{") || token.is("["))
                ++depth;
            else if (token.is(")") || token.is("}") || token.is("]"))
                --depth;
            else if (token.is(";") || (firstOnly && depth == 0 && token.is(",")))
                return;
            else if (depth == 0 && token.kind == Token::Kind::text)
                found.insert(token.value);
            else if (depth == 0 && constants.contains(token.value))
                found.insert(constants.at(token.value));
        }
    }

    /// `name[] = "text"` and `*name = "text"`.
    void findConstants()
    {
        for (std::size_t at = 0; at + 2 < tokens.size(); ++at) {
            if (tokens[at].kind != Token::Kind::name || (at > 0 && tokens[at - 1].is(".")))
                continue;
            const std::size_t equals = matches(at + 1, {"[", "]"}) ? at + 3 : at + 1;
            if (matches(equals, {"="}) && equals + 1 < tokens.size() && tokens[equals + 1].kind == Token::Kind::text)
                constants[tokens[at].value] = tokens[equals + 1].value;
        }
    }

    void findHelpers()
    {
        for (std::size_t at = 0; at < tokens.size(); ++at) {
            const auto sentence = sentenceOfError(at);
            if (!sentence || *sentence >= tokens.size() || tokens[*sentence].kind != Token::Kind::name
                || constants.contains(tokens[*sentence].value))
                continue;
            if (auto name = functionAround(at))
                helpers.insert(*name);
        }
    }

    /// The name before the parameters before the open brace that `at` stands behind.
    std::optional<std::string> functionAround(std::size_t at) const
    {
        const auto brace = openBefore(at, "{", "}");
        if (!brace || *brace == 0 || !tokens[*brace - 1].is(")"))
            return std::nullopt;
        const auto parameters = openBefore(*brace - 1, "(", ")");
        if (!parameters || *parameters == 0 || tokens[*parameters - 1].kind != Token::Kind::name)
            return std::nullopt;
        return tokens[*parameters - 1].value;
    }

    std::optional<std::size_t> openBefore(std::size_t at, const char *open, const char *close) const
    {
        for (int depth = 0; at-- > 0;) {
            if (tokens[at].is(close))
                ++depth;
            else if (tokens[at].is(open) && depth-- == 0)
                return at;
        }
        return std::nullopt;
    }

    const Tokens tokens;
    std::map<std::string, std::string> constants;
    Texts helpers;
    Texts found;
};

Texts textsIn(const std::string &code) { return TextFinder(code).texts(); }

bool isSource(const fs::path &path) { return path.extension() == ".cpp" || path.extension() == ".h"; }

/// All texts of the program: those in its sources, and those that are made of raw values.
const Texts &textsOfTheProgram()
{
    static const Texts all = [] {
        Texts texts;
        for (const char *folder : {"CommandCore", "Vorrel", "apps"}) {
            for (const auto &entry : fs::recursive_directory_iterator(source / folder)) {
                if (entry.is_regular_file() && isSource(entry.path()))
                    texts.merge(textsIn(contentsOf(entry.path())));
            }
        }
        for (const auto kind : allResultKinds)
            texts.emplace(rawValue(kind));
        for (const auto category : allSearchCategories)
            texts.emplace(rawValue(category));
        for (const auto kind : allFileKinds)
            texts.emplace(rawValue(kind));
        for (const auto sort : fileSorts)
            texts.emplace(sort);
        for (const auto role : {ActionRole::write, ActionRole::destructive}) // the roles that a row names
            texts.emplace(rawValue(role));
        texts.insert(AppError::friendly(std::make_exception_ptr(Cancelled())));
        texts.insert(AppError::friendly(std::make_exception_ptr(std::exception())));
        return texts;
    }();
    return all;
}

Strings placeholdersIn(const std::string &text)
{
    static const std::regex placeholder("%(@|lld)");
    return Strings(std::sregex_token_iterator(text.begin(), text.end(), placeholder), {});
}

} // namespace

// Choosing and reading the tables

TEST_F(L10nTest, ASystemSetToTraditionalChineseShowsTheSimplifiedTexts)
{
    localizable("resources", "en.lproj", R"("Sleep" = "Sleep";)");
    localizable("resources", "zh-hans.lproj", R"("Sleep" = "睡眠";)");
    for (const char *language : {"zh-Hant-TW", "zh_TW.UTF-8", "zh-hk", "zh"}) {
        use({language, "en"});
        EXPECT_EQ(L10n::text("Sleep"), "睡眠") << language;
    }
}

TEST_F(L10nTest, TheFirstLanguageAloneDecides)
{
    EXPECT_EQ(L10n::languageFor({"zh-Hans", "en"}), "zh-hans");
    EXPECT_EQ(L10n::languageFor({"de", "zh-Hans"}), "en");
    EXPECT_EQ(L10n::languageFor({"ZH"}), "en");
    EXPECT_EQ(L10n::languageFor({""}), "en");
    EXPECT_EQ(L10n::languageFor({}), "en");
}

TEST_F(L10nTest, AMissingKeyShowsItsEnglishText)
{
    localizable("resources", "zh-hans.lproj", R"("Sleep" = "睡眠";)");
    use({"zh"}, "linux");
    EXPECT_EQ(L10n::text("Lock Screen"), "Lock Screen");
    EXPECT_EQ(L10n::shown("Lock Screen"), "Lock Screen");
    EXPECT_EQ(L10n::simplifiedChinese("Lock Screen"), "Lock Screen");
}

TEST_F(L10nTest, WithoutAnyTableEveryTextIsItsOwnKey)
{
    EXPECT_EQ(L10n::text("Open Finder"), "Open Finder");
    EXPECT_EQ(L10n::shown("Open Finder"), "Open Finder");
    EXPECT_EQ(L10n::simplifiedChinese("Open Finder"), "Open Finder");
}

using L10nDeathTest = L10nTest;

TEST_F(L10nDeathTest, WithoutAnyBundleTheProgramStopsAndSaysWhereItLooked)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(L10n::load({"/no/resources", "/no/program", "/no/build", {"en"}, ""}), testing::ExitedWithCode(1),
        "could not load resource bundle: from /no/program/Korvane_Vorrel.bundle or /no/build/Korvane_Vorrel.bundle\n");
}

TEST_F(L10nTest, TheBundleComesFromTheFirstPlaceThatHasIt)
{
    localizable("build", "en.lproj", R"("Sleep" = "from the build";)");
    use({"en"});
    EXPECT_EQ(L10n::text("Sleep"), "from the build");
    localizable("beside", "en.lproj", R"("Sleep" = "from beside the program";)");
    use({"en"});
    EXPECT_EQ(L10n::text("Sleep"), "from beside the program");
    localizable("resources", "en.lproj", R"("Sleep" = "from the resources";)");
    use({"en"});
    EXPECT_EQ(L10n::text("Sleep"), "from the resources");
}

TEST_F(L10nTest, ALanguageWithoutAFolderTakesTheTablesOfTheBundleItself)
{
    localizable("resources", "", R"("Sleep" = "of the bundle";)");
    use({"zh"});
    EXPECT_EQ(L10n::text("Sleep"), "of the bundle");
    EXPECT_EQ(L10n::simplifiedChinese("Sleep"), "Sleep");
}

TEST_F(L10nTest, TheChineseTextIsThereInEveryLanguage)
{
    localizable("resources", "en.lproj", R"("Sleep" = "Sleep";)");
    localizable("resources", "zh-hans.lproj", R"("Sleep" = "睡眠";)");
    use({"en"});
    EXPECT_EQ(L10n::text("Sleep"), "Sleep");
    EXPECT_EQ(L10n::simplifiedChinese("Sleep"), "睡眠");
}

TEST_F(L10nTest, OnlyWhatIsShownTakesTheWordsOfThePlatform)
{
    localizable("resources", "en.lproj", R"("Open Finder" = "Open Finder"; "Sleep" = "Sleep";)");
    table("resources", "en.lproj", "Platform-linux.strings", R"("Open Finder" = "Open File Manager";)");
    use({"en"}, "linux");
    EXPECT_EQ(L10n::shown("Open Finder"), "Open File Manager");
    EXPECT_EQ(L10n::shown("Sleep"), "Sleep");
    EXPECT_EQ(L10n::text("Open Finder"), "Open Finder");
    use({"en"}, "");
    EXPECT_EQ(L10n::shown("Open Finder"), "Open Finder");
}

TEST_F(L10nTest, ThePlatformHasItsWordsInTheUsersLanguage)
{
    localizable("resources", "zh-hans.lproj", R"("Open Finder" = "打开访达";)");
    table("resources", "zh-hans.lproj", "Platform-linux.strings", R"("Open Finder" = "打开文件管理器";)");
    use({"zh-Hans"}, "linux");
    EXPECT_EQ(L10n::shown("Open Finder"), "打开文件管理器");
    EXPECT_EQ(L10n::text("Open Finder"), "打开访达");
}

TEST_F(L10nTest, AFormatTakesItsValueOnce)
{
    localizable("resources", "en.lproj", R"("%lld rows" = "rows: %lld"; "For %@…" = "%@ it is for";)");
    use({"en"});
    EXPECT_EQ(L10n::format("%lld rows", "12"), "rows: 12");
    EXPECT_EQ(L10n::format("For %@…", "a %@ named %lld"), "a %@ named %lld it is for");
    EXPECT_EQ(L10n::format("Not in the table: %@", "x"), "Not in the table: x");
    EXPECT_EQ(L10n::format("Nothing to fill", "x"), "Nothing to fill");
    EXPECT_EQ(L10n::format("Run %@ with %@, %lld times", {"%@", "%lld", "3"}), "Run %@ with %lld, 3 times");
    EXPECT_EQ(L10n::format("Only %@", {"one", "two"}), "Only one");
}

TEST(L10nParse, ReadsEntriesBetweenCommentsAndPassesOverTheRest)
{
    const struct {
        const char *why;
        const char *strings;
        L10n::Table table;
    } cases[] = {
        {"nothing", "", {}},
        {"one entry", "\"a\" = \"b\";", {{"a", "b"}}},
        {"any blanks, and none", "  \"a\"=\"b\" ;\n\t\"c\"\t=\t\"d\"\t;", {{"a", "b"}, {"c", "d"}}},
        {"two on a line", "\"a\" = \"b\"; \"c\" = \"d\";", {{"a", "b"}, {"c", "d"}}},
        {"both kinds of comment", "/* \"x\" = \"y\"; */ \"a\" = \"b\"; // \"c\" = \"d\";\n\"e\" = \"f\";",
            {{"a", "b"}, {"e", "f"}}},
        {"a comment over lines", "/* one\n\"x\" = \"y\";\n*/\n\"a\" = \"b\";", {{"a", "b"}}},
        {"a comment without an end", "\"a\" = \"b\";\n/* \"c\" = \"d\";", {{"a", "b"}}},
        {"comment signs inside texts", "\"// a /*\" = \"*/ b //\";", {{"// a /*", "*/ b //"}}},
        {"escapes", R"("a\"b\\" = "c\nd\te\u00e9\U4f60\x";)", {{"a\"b\\", "c\nd\teé你x"}}},
        {"an escape cut short", R"("a" = "\u12";)", {}},
        {"UTF-8 and a byte order mark", "\xEF\xBB\xBF\"Sleep…\" = \"睡眠\";", {{"Sleep…", "睡眠"}}},
        {"lines that are neither", "garbage\n\"a\" = b;\n\"c\" \"d\";\n\"e\" = \"f\"\n\"g\" = \"h\";", {{"g", "h"}}},
        {"a text without an end", "\"a\" = \"b;\n\"c\" = \"d\";", {{"c", "d"}}},
        {"a backslash at the very end", "\"a\" = \"b\\", {}},
        {"lines as Windows ends them", "\"a\" = \"b\";\r\n\"c\" = \"d\";\r\n", {{"a", "b"}, {"c", "d"}}},
        {"an empty text", "\"a\" = \"\";", {{"a", ""}}},
        {"the last of two", "\"a\" = \"b\";\n\"a\" = \"c\";", {{"a", "c"}}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_EQ(L10n::parse(c.strings), c.table);
    }
}

// The program's texts and tables agree

TEST(L10nSources, EveryWayToGiveATextIsRecognised)
{
    const struct {
        const char *why;
        const char *code;
        Texts texts;
    } cases[] = {
        {"each operation",
            R"(L10n::text("a"); L10n::shown("b"); L10n::key("c"); L10n::format("d %@", "no"); L10n::simplifiedChinese("e");)",
            {"a", "b", "c", "d %@", "e"}},
        {"a choice", R"(L10n::text(many ? "files" : "file"))", {"files", "file"}},
        {"adjacent literals over lines", "L10n::text(\"one \"\n   \"two\")", {"one two"}},
        {"a raw and an escaped literal", "L10n::key(R\"(say \"x\")\"); L10n::key(\"say \\\"y\\\"\\n\")",
            {"say \"x\"", "say \"y\"\n"}},
        {"an error", R"(throw AppError(AppError::Kind::mcp, "a"); AppError{AppError::Kind::network,
            "b"}; AppError named(AppError::Kind::database, "c");)",
            {"a", "b", "c"}},
        {"a function that makes errors", R"(void refuse(std::string s) { throw AppError(AppError::Kind::mcp, std::move(s)); }
            void f() { refuse("a"); })",
            {"a"}},
        {"a constant",
            R"(constexpr char why[] = "a"; const char *how = "b"; f() { throw AppError(AppError::Kind::mcp, why); L10n::text(how); })",
            {"a", "b"}},
        {"no comment, no other call, no character", R"(// L10n::text("a")
            /* L10n::text("b") */ log("c"); char d = '"'; int n = 1'000; f(L10n::text("e")); g("h");)",
            {"e"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.why);
        EXPECT_EQ(textsIn(c.code), c.texts);
    }
}

TEST(L10nSources, EveryTextOfTheProgramHasAnEntryInEachTable)
{
    ASSERT_GT(textsOfTheProgram().size(), 50U) << "the sources were not found";
    EXPECT_EQ(without(textsOfTheProgram(), keysOf(programTable("en"))), Texts());
    EXPECT_EQ(without(textsOfTheProgram(), keysOf(programTable("zh-hans"))), Texts());
}

TEST(L10nSources, NoTableHasAnEntryThatNothingUses)
{
    EXPECT_EQ(without(keysOf(programTable("en")), textsOfTheProgram()), Texts());
    EXPECT_EQ(without(keysOf(programTable("zh-hans")), textsOfTheProgram()), Texts());
    for (const char *language : {"en", "zh-hans"})
        EXPECT_EQ(without(keysOf(programTable(language, "Platform-linux.strings")), textsOfTheProgram()), Texts()) << language;
}

TEST(L10nTables, EnglishTextsAreTheirOwnKeys)
{
    for (const auto &[key, value] : programTable("en"))
        EXPECT_EQ(value, key);
}

TEST(L10nTables, EveryTextIsInChineseButForNames)
{
    const Texts sameInBoth{"Korvane", "AI", "MCP", "OpenAI · Responses API", "⌘%lld"};
    for (const auto &[key, value] : programTable("zh-hans")) {
        EXPECT_FALSE(value.empty()) << key;
        EXPECT_EQ(value == key, sameInBoth.contains(key)) << key;
    }
}

TEST(L10nTables, TranslationsKeepThePlaceholders)
{
    for (const char *file : {"Localizable.strings", "Platform-linux.strings"}) {
        for (const char *language : {"en", "zh-hans"}) {
            for (const auto &[key, value] : programTable(language, file))
                EXPECT_EQ(placeholdersIn(value), placeholdersIn(key)) << language << ": " << key;
        }
    }
    EXPECT_EQ(placeholdersIn("%@ of %lld at 5%"), (Strings{"%@", "%lld"}));
}

TEST(L10nTables, NoKeyStandsTwice)
{
    static const std::regex entry("\" = \"");
    for (const char *file : {"Localizable.strings", "Platform-linux.strings"}) {
        for (const std::string language : {"en", "zh-hans"}) {
            const std::string text = contentsOf(source / "resources/Korvane_Vorrel.bundle" / (language + ".lproj") / file);
            const auto lines = std::distance(std::sregex_iterator(text.begin(), text.end(), entry), {});
            EXPECT_EQ(static_cast<std::size_t>(lines), L10n::parse(text).size()) << language << " " << file;
        }
    }
}

TEST(L10nTables, TheLinuxTableRewordsExactlyWhatWouldMislead)
{
    const Texts reworded{
        "A required MCP credential is missing from Keychain.",
        "Plaintext environment values are not stored. Use secretEnvironment with Keychain account references.",
        "Select an absolute path to an executable, such as /opt/homebrew/bin/node.",
        "A previous file access check is still waiting for macOS. Respond to its permission prompt before retrying.",
        "Choose a shortcut with Command, Option or Control.",
        "Choose an installed application bundle.",
        "Click Record, then press a shortcut with Command, Option or Control. Save Settings to apply.",
        "Credential saved in Keychain.",
        "Enable Korvane in System Settings → Privacy & Security → Accessibility to lock the screen.",
        "File access timed out. Respond to any macOS permission prompt, check the file is available locally, then retry.",
        "Finder could not empty the Trash. Check Automation permissions and try again.",
        "Finder could not open this folder.",
        "Global shortcuts are unavailable. Open Korvane from the menu bar and try again.",
        "Include ⌘, ⌥ or ⌃ (Esc cancels)",
        "Keychain access was denied.",
        "Korvane cannot read this file. Review Files & Folders access in System Settings, then retry.",
        "Korvane lives in the menu bar. Press the global shortcut to open or hide the command window.",
        "Login registration failed. Move Korvane.app to Applications and try again.",
        "MCP Credential · Keychain",
        "No global shortcut is active. Open Korvane or Settings from the menu bar.",
        "Open Files & Folders Settings",
        "Open Finder",
        "Open Login Items Settings",
        "Open System Settings → General → Login Items.",
        "Open System Settings → Keyboard → Keyboard Shortcuts.",
        "Open System Settings → Privacy & Security → Files & Folders.",
        "Restore Option + Space",
        "Search results may include files Korvane cannot currently read. For Desktop, Documents and Downloads, review Files & "
        "Folders access. Cloud files must be available locally.",
        "Show in Finder",
        "Text and URLs stay on this Mac. Password-manager concealed and transient items are skipped. Unmarked sensitive text may "
        "still be captured; pause history when needed.",
        "The Keychain item could not be removed.",
        "The secret could not be saved to Keychain.",
        "This shortcut could not be registered. It may be used by macOS or another app. Choose a different shortcut.",
        "To replace Spotlight, first change its shortcut in System Settings → Keyboard → Keyboard Shortcuts → Spotlight, then "
        "Save Settings here.",
        "Use Command + Space (Spotlight)",
        "Waiting for macOS approval. Allow Korvane in System Settings → General → Login Items.",
        "macOS did not allow this sleep request.",
    };
    EXPECT_EQ(keysOf(programTable("en", "Platform-linux.strings")), reworded);
    EXPECT_EQ(keysOf(programTable("zh-hans", "Platform-linux.strings")), reworded);
}

TEST(L10nTables, NoWordOfAnotherSystemReachesALinuxUser)
{
    static const std::regex foreign(
        "Finder|Keychain|menu bar|Spotlight|System Settings|Option|Command \\+|this Mac|macOS|\\.app\\b"
        "|访达|钥匙串|菜单栏|聚焦|系统设置|本机 Mac");
    for (const std::string language : {"en", "zh-hans"}) {
        auto shown = programTable(language);
        for (const auto &[key, value] : programTable(language, "Platform-linux.strings"))
            shown[key] = value;
        for (const auto &[key, value] : shown)
            EXPECT_FALSE(std::regex_search(value, foreign)) << language << ": " << value;
    }
}
