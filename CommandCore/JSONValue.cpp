#include "CommandCore/JSONValue.h"

#include "CommandCore/Commands.h"
#include "Support/Text.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <charconv>
#include <cmath>
#include <utility>

namespace korvane {

namespace {

constexpr std::size_t maximumDepth = 512;

/// Puts a tree together from a reader's events. What is still open waits in `open`, so that nothing recurses.
class TreeBuilder : public nlohmann::json_sax<nlohmann::json> {
public:
    bool null() override { return add(nullptr); }
    bool boolean(bool value) override { return add(value); }
    // The reader gives a signed integer only behind a minus sign: its zero is the negative one.
    bool number_integer(std::int64_t value) override { return add(value == 0 ? -0.0 : static_cast<double>(value)); }
    bool number_unsigned(std::uint64_t value) override { return add(static_cast<double>(value)); }
    bool number_float(double value, const std::string &) override { return add(value); }
    bool string(std::string &value) override { return add(std::move(value)); }
    bool binary(binary_t &) override { return false; }
    bool start_object(std::size_t) override { return begin(JSONValue::Object()); }
    bool start_array(std::size_t) override { return begin(JSONValue::Array()); }
    bool end_object() override { return end<JSONValue::Object>(); }
    bool end_array() override { return end<JSONValue::Array>(); }
    bool key(std::string &key) override
    {
        open.back().key = std::move(key);
        return true;
    }
    bool parse_error(std::size_t, const std::string &, const nlohmann::json::exception &error) override
    {
        throw JSONError(error.what());
    }

    JSONValue result;

private:
    struct Container {
        std::variant<JSONValue::Object, JSONValue::Array> members;
        std::string key; ///< Of the member that comes next, in an object.
    };

    /// Makes the value where it belongs: a move of a tree's node costs as much as reading a short text.
    template <class Value> bool add(Value &&value)
    {
        if (open.empty())
            result = JSONValue(std::forward<Value>(value));
        else if (auto *array = std::get_if<JSONValue::Array>(&open.back().members))
            array->emplace_back(std::forward<Value>(value));
        else
            std::get<JSONValue::Object>(open.back().members)
                .insert_or_assign(std::move(open.back().key), std::forward<Value>(value));
        return true;
    }

    template <class Members> bool begin(Members empty)
    {
        if (open.size() == maximumDepth)
            throw JSONError("nested too deeply");
        open.push_back({std::move(empty), {}});
        return true;
    }

    template <class Members> bool end()
    {
        auto members = std::get<Members>(std::move(open.back().members));
        open.pop_back();
        return add(std::move(members));
    }

    std::vector<Container> open; ///< Outermost first.
};

void writeString(std::string &out, std::string_view text)
{
    out += '"';
    for (const char c : text) {
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        case '/': out += "\\/"; break;
        case '\b': out += "\\b"; break;
        case '\f': out += "\\f"; break;
        case '\n': out += "\\n"; break;
        case '\r': out += "\\r"; break;
        case '\t': out += "\\t"; break;
        default:
            if (static_cast<unsigned char>(c) < 0x20)
                out += fmt::format("\\u{:04x}", static_cast<unsigned>(c));
            else
                out += c;
        }
    }
    out += '"';
}

void writeText(std::string &out, const std::string &text)
{
    if (isValidUTF8(text))
        writeString(out, text);
    else
        writeString(out, displayable(text));
}

void writeNumber(std::string &out, double value)
{
    if (!std::isfinite(value))
        throw JSONError("a number that JSON cannot express");
    // Whole numbers up to here are written digit by digit; from there on an exponent is shorter.
    constexpr double longestInFull = 1e21;
    const bool whole = value == std::trunc(value) && std::abs(value) < longestInFull;
    char digits[40];
    const auto [end, error] = whole ? std::to_chars(digits, std::end(digits), value, std::chars_format::fixed)
                                    : std::to_chars(digits, std::end(digits), value);
    out.append(digits, end);
}

void write(std::string &out, const JSONValue &value);

void writeArray(std::string &out, const JSONValue::Array &array)
{
    out += '[';
    for (const auto &element : array) {
        if (&element != &array.front())
            out += ',';
        write(out, element);
    }
    out += ']';
}

void writeObject(std::string &out, const JSONValue::Object &object)
{
    const char *before = "";
    out += '{';
    for (const auto &[key, value] : object) {
        out += std::exchange(before, ",");
        writeText(out, key);
        out += ':';
        write(out, value);
    }
    out += '}';
}

void write(std::string &out, const JSONValue &value)
{
    if (const auto *object = value.object())
        writeObject(out, *object);
    else if (const auto *array = value.array())
        writeArray(out, *array);
    else if (const auto *string = value.string())
        writeText(out, *string);
    else if (const auto *number = value.number())
        writeNumber(out, *number);
    else if (const auto *boolean = value.boolean())
        out += *boolean ? "true" : "false";
    else
        out += "null";
}

/// The reader takes these two for harmless: it skips a byte order mark, and takes a NUL for the end.
void refuseWhatTheReaderAccepts(std::string_view text)
{
    if (text.starts_with("\xEF\xBB\xBF"))
        throw JSONError("begins with a byte order mark");
    if (text.find('\0') != text.npos)
        throw JSONError("contains a NUL");
}

} // namespace

JSONValue JSONValue::parse(std::string_view text)
{
    refuseWhatTheReaderAccepts(text);
    TreeBuilder tree;
    if (!nlohmann::json::sax_parse(text.begin(), text.end(), &tree))
        throw JSONError("not JSON");
    return std::move(tree.result);
}

std::string JSONValue::encodedString() const
{
    std::string out;
    write(out, *this);
    return out;
}

const JSONValue &JSONValue::operator[](std::string_view key) const
{
    static const JSONValue null;
    const auto *members = object();
    if (!members)
        return null;
    const auto found = members->find(key);
    return found == members->end() ? null : found->second;
}

const std::string &JSONValue::text(std::string_view key) const
{
    if (const auto *text = (*this)[key].string())
        return *text;
    throw JSONError("no text: " + std::string(key));
}

const std::string &JSONValue::requiredString(std::string_view key) const
{
    const auto *text = (*this)[key].string();
    if (text && !text->empty())
        return *text;
    // The name makes it a sentence that no table can have.
    std::string sentence = "Missing or invalid input: ";
    sentence.append(key).push_back('.');
    throw AppError(AppError::Kind::toolExecution, std::move(sentence));
}

JSONValue JSONValue::schema(const std::map<std::string, std::string> &properties, const std::vector<std::string> &required)
{
    Object members;
    for (const auto &[name, description] : properties)
        members.emplace(name, Object{{"type", "string"}, {"description", description}});
    return Object{{"type", "object"}, {"properties", std::move(members)}, {"required", Array(required.begin(), required.end())},
        {"additionalProperties", false}};
}

} // namespace korvane
