#pragma once

#include <string>
#include <string_view>

struct sqlite3;

/// A faster `LIKE` with the meaning of SQLite's own: letters of ASCII are alike in either case, "%" is any text, "_" any one
/// character. While a connection has it, SQLite uses no index for a `LIKE`.
namespace korvane {

/// A pattern taken apart once, to be held against many texts.
class LikePattern {
public:
    /// `escape` takes the meaning from the sign behind it; 0 for none.
    explicit LikePattern(std::string_view pattern, char escape = 0);
    bool matches(const char *text, std::size_t size) const; ///< `text` ends with a NUL behind its `size` bytes.

private:
    enum class Shape { equal, prefix, suffix, contains, other };
    Shape shape = Shape::other;
    std::string pattern; ///< As given.
    std::string literal; ///< What the text must hold, in lower case.
    std::size_t anchor = 0; ///< Where in `literal` a byte stands that is sought first.
    bool anchored = false; ///< Whether there is one that has no second case.
    char escape;
};

/// Puts it in the place of the connection's own, `x LIKE y` and `x LIKE y ESCAPE z`. An SQLite result code.
int installFastLike(sqlite3 *connection);
/// Puts SQLite's own back, blind to case.
int removeFastLike(sqlite3 *connection);

} // namespace korvane
