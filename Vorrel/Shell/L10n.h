#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

/// All text that the user reads. The English text is the key; a look-up that finds nothing gives back
/// the key. Two languages: English, and simplified Chinese for every language that begins with "zh".
namespace korvane {

/// The tables of a chosen language. Values are fixed once loaded; any thread.
class L10n {
public:
    using Table = std::map<std::string, std::string, std::less<>>;

    /// What `load` needs of its surroundings.
    struct Places {
        std::string resources; ///< Folder of the installed program's resources.
        std::string beside; ///< Folder of the running program.
        std::string fixedAtBuild; ///< Folder that an installation without further wishes puts them in.
        std::vector<std::string> languages; ///< The user's preferred languages, the first one first.
        std::string platform; ///< Name of the platform's own table of words, such as "linux".
    };
    /// Opens "Korvane_Vorrel.bundle" in the first of the three places that has it. Where none has it, the
    /// program ends with the message "could not load resource bundle: from " and the paths tried.
    static L10n load(const Places &places);

    /// Makes `tables` the ones that the static look-ups use. Before that every text is its own key.
    static void use(L10n tables);

    /// The text in the user's language.
    static std::string text(std::string_view key);
    /// The text in the user's language, in the words of the user's platform: for views only.
    static std::string shown(std::string_view key);
    /// The text in simplified Chinese, whatever the user's language.
    static std::string simplifiedChinese(std::string_view key);
    /// `text(format)` with its one "%@" or "%lld" replaced by `value`.
    static std::string format(std::string_view format, std::string_view value) { return L10n::format(format, {value}); }
    /// The same with one value for each of them, in their order.
    static std::string format(std::string_view format, std::initializer_list<std::string_view> values);

    /// The language of the tables in use: "en" or "zh-hans". For what libraries put into words, such as dates.
    static std::string languageInUse();

    /// Marks a literal as a text of the tables where it is translated later; gives it back unchanged.
    static constexpr const char *key(const char *english) { return english; }

    /// "zh-hans" if the first language begins with "zh", otherwise "en".
    static std::string languageFor(const std::vector<std::string> &preferredLanguages);
    /// Reads a table in the ".strings" format (`"key" = "value";`, comments, backslash escapes, UTF-8).
    /// Lines that are neither are passed over.
    static Table parse(std::string_view strings);

    const Table &language() const { return _language; }
    const Table &chinese() const { return _chinese; }
    const Table &platform() const { return _platform; }

private:
    Table _language, _chinese, _platform;
    std::string name = "en";
};

} // namespace korvane
