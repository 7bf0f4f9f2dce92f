#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace korvane {

/// The one dynamically typed JSON tree of the program (RFC 8259): a value with structural equality, free
/// to pass between threads. Numbers are doubles; there is no integer case. Objects have no key order.
/// A tree may be nested without bound: nothing that works on all of it uses the call stack for its levels.
class JSONValue {
public:
    using Object = std::map<std::string, JSONValue, std::less<>>;
    using Array = std::vector<JSONValue>;

    JSONValue() = default; ///< null
    JSONValue(std::nullptr_t) { }
    JSONValue(bool value) : value(value) { }
    JSONValue(double value) : value(value) { }
    JSONValue(int value) : value(double(value)) { }
    JSONValue(std::int64_t value) : value(double(value)) { }
    JSONValue(std::string value) : value(std::move(value)) { }
    JSONValue(const char *value) : value(std::string(value)) { }
    JSONValue(Array value) : value(std::move(value)) { }
    JSONValue(Object value) : value(std::move(value)) { }
    JSONValue(const JSONValue &other);
    JSONValue(JSONValue &&other) noexcept;
    JSONValue &operator=(const JSONValue &other);
    JSONValue &operator=(JSONValue &&other) noexcept;
    ~JSONValue()
    {
        if (isContainer())
            dismantle();
    }

    /// Reads one JSON text in UTF-8. Throws `JSONError` for anything else: bad syntax or UTF-8, a byte
    /// order mark, text behind the value, a number that overflows a double, more than 512 levels of
    /// nesting. Of duplicate keys the last counts.
    static JSONValue parse(std::string_view text);

    /// Compact JSON, the solidus escaped, whole numbers without a fraction, other numbers so that they
    /// read back to the same double, malformed UTF-8 repaired. Throws `JSONError` for a number that JSON cannot express.
    std::string encodedString() const;

    const std::string *string() const { return std::get_if<std::string>(&value); }
    const double *number() const { return std::get_if<double>(&value); }
    const bool *boolean() const { return std::get_if<bool>(&value); }
    const Array *array() const { return std::get_if<Array>(&value); }
    const Object *object() const { return std::get_if<Object>(&value); }
    bool isNull() const { return std::holds_alternative<std::monostate>(value); }

    /// The member of an object; null when it is missing or this is no object.
    const JSONValue &operator[](std::string_view key) const;
    /// Moves the member of an object out and leaves null in its place; null when it is missing or this is no object.
    JSONValue take(std::string_view key);

    /// The text of a member that must be there. Throws `JSONError` when it is missing or no text.
    const std::string &text(std::string_view key) const;
    /// The text of a tool's input that must be there and not empty. Throws `toolExecution` "Missing or invalid input: KEY."
    const std::string &requiredString(std::string_view key) const;
    /// Refuses a tool's input for this member. Throws the same.
    [[noreturn]] static void refuseInput(std::string_view key);
    /// The schema (json-schema.org) of an object whose members are texts: their descriptions by name, and the names of those
    /// that must be there, which are not compared with the former.
    static JSONValue schema(const std::map<std::string, std::string> &properties, const std::vector<std::string> &required);

    bool operator==(const JSONValue &other) const;

private:
    using Value = std::variant<std::monostate, Object, Array, std::string, double, bool>;
    struct Copying;

    bool isContainer() const { return value.index() == 1 || value.index() == 2; }
    void dismantle() noexcept;

    Value value;
};

inline JSONValue::JSONValue(JSONValue &&other) noexcept = default;

/// A text that is no JSON, or a value that JSON cannot express. Its wording is for logs only.
class JSONError : public std::exception {
public:
    explicit JSONError(std::string what) : message(std::move(what)) { }
    const char *what() const noexcept override { return message.c_str(); }

private:
    std::string message;
};

} // namespace korvane
