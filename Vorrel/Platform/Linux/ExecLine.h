#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace korvane {

/// The command line of a desktop entry, taken apart by the Desktop Entry rules: quoting is undone first,
/// then field codes are filled in, each without being read again. A value; no input or output.
class ExecLine {
public:
    /// The words of an Exec value whose general escapes (as "\s") have been undone already. Nothing for
    /// a value that must not be processed: no program, an open quote, an unknown field code, a NUL.
    ///
    /// Where the rules leave a thing undefined, what other desktops do holds: single quotes quote, a
    /// backslash outside quotes escapes, a quote may begin inside a word.
    static std::optional<ExecLine> parse(std::string_view value);

    /// A file or an address that the program is to open.
    struct Target {
        std::string path; ///< Empty for what is no local file.
        std::string uri;
    };
    /// What field codes stand for.
    struct Input {
        std::vector<std::string> arguments = {}; ///< Typed by the user; each becomes a word as it is.
        std::optional<Target> target = {};
        std::string name = {}; ///< %c, in the user's language.
        std::string icon = {}; ///< %i
        std::string location = {}; ///< %k, the path of the entry.
    };

    /// The program and its arguments. What is typed or to be opened takes the place of the first of %f,
    /// %F, %u and %U that is a word by itself, else stands last; a target may also take the place of
    /// one inside an unquoted word. The other codes of these four stand for nothing.
    std::vector<std::string> words(const Input &input) const;

private:
    /// A stretch of text, or a field code.
    struct Piece {
        char code = 0; ///< Of "fFuUick"; 0 for text.
        std::string text = {};
    };
    struct Word {
        std::vector<Piece> pieces = {};
        bool quoted = false; ///< Some part of it.

        void append(char byte);
        bool isPlace() const;
    };
    class Reader;

    std::vector<Word> parsed;
};

} // namespace korvane
