#include "CommandCore/JSONValue.h"

#include "CommandCore/Commands.h"
#include "Support/Text.h"

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
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

/// Which bytes stand for themselves in a written text, without regard to others.
constexpr std::array<bool, 256> plainBytes = [] {
    std::array<bool, 256> plain{};
    for (std::size_t byte = 0x20; byte < 0x80; ++byte)
        plain[byte] = byte != '"' && byte != '\\' && byte != '/';
    return plain;
}();

void writeEscaped(std::string &out, char c)
{
    switch (c) {
    case '"': out += "\\\""; break;
    case '\\': out += "\\\\"; break;
    case '/': out += "\\/"; break;
    case '\b': out += "\\b"; break;
    case '\f': out += "\\f"; break;
    case '\n': out += "\\n"; break;
    case '\r': out += "\\r"; break;
    case '\t': out += "\\t"; break;
    default: out += fmt::format("\\u{:04x}", static_cast<unsigned>(c)); break;
    }
}

/// How many bytes at the beginning of the text are written as they are.
std::size_t plainLength(std::string_view text)
{
    std::size_t length = 0;
    while (length < text.size()) {
        if (plainBytes[static_cast<unsigned char>(text[length])])
            ++length;
        else if (const auto bytes = codePointLength(text.substr(length)); bytes > 1)
            length += bytes;
        else
            break;
    }
    return length;
}

void writeText(std::string &out, std::string_view text)
{
    const std::size_t before = out.size();
    const std::string_view whole = text;
    out += '"';
    for (;;) {
        const auto plain = plainLength(text);
        out.append(text, 0, plain);
        text.remove_prefix(plain);
        if (text.empty())
            break;
        if (static_cast<unsigned char>(text.front()) >= 0x80) { // found on the way: most texts need no repair
            out.resize(before);
            return writeText(out, displayable(whole));
        }
        writeEscaped(out, text.front());
        text.remove_prefix(1);
    }
    out += '"';
}

void writeNumber(std::string &out, double value)
{
    if (!std::isfinite(value))
        throw JSONError("a number that JSON cannot express");
    constexpr double largestExact = 0x1p53; // below it every whole number is one of 64 bits, which is written faster
    // Whole numbers up to here are written digit by digit; from there on an exponent is shorter.
    constexpr double longestInFull = 1e21;
    char digits[40];
    const auto written = [&] {
        const double size = std::abs(value);
        if (value != std::trunc(value) || size >= longestInFull)
            return std::to_chars(digits, std::end(digits), value);
        if (size >= largestExact || size == 0) // a zero keeps its sign
            return std::to_chars(digits, std::end(digits), value, std::chars_format::fixed);
        return std::to_chars(digits, std::end(digits), static_cast<std::int64_t>(value));
    }();
    out.append(digits, written.ptr);
}

/// Writes a tree. The containers that are open wait in `open`, so that nothing recurses.
class Writer {
public:
    std::string text(const JSONValue &value)
    {
        write(value);
        while (!open.empty())
            std::visit([this](auto &members) { writeNext(members); }, open.back());
        return std::move(out);
    }

private:
    /// What is left to write of a container.
    template <class Container> struct Members {
        typename Container::const_iterator begin, next, end;
    };
    using Elements = Members<JSONValue::Array>;
    using Pairs = Members<JSONValue::Object>;

    void write(const JSONValue &value)
    {
        if (const auto *object = value.object()) {
            out += '{';
            open.emplace_back(Pairs{object->begin(), object->begin(), object->end()});
        } else if (const auto *array = value.array()) {
            out += '[';
            open.emplace_back(Elements{array->begin(), array->begin(), array->end()});
        } else {
            writeScalar(value);
        }
    }

    void writeScalar(const JSONValue &value)
    {
        if (const auto *string = value.string())
            writeText(out, *string);
        else if (const auto *number = value.number())
            writeNumber(out, *number);
        else if (const auto *boolean = value.boolean())
            out += *boolean ? "true" : "false";
        else
            out += "null";
    }

    template <class Container> void writeNext(Members<Container> &members)
    {
        constexpr bool isObject = std::is_same_v<Container, JSONValue::Object>;
        if (members.next == members.end) {
            out += isObject ? '}' : ']';
            open.pop_back();
            return;
        }
        if (members.next != members.begin)
            out += ',';
        const auto &member = *members.next++; // before `write`, which may move `members`
        if constexpr (isObject) {
            writeText(out, member.first);
            out += ':';
            write(member.second);
        } else {
            write(member);
        }
    }

    std::string out;
    std::vector<std::variant<Elements, Pairs>> open; ///< Outermost first.
};

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

std::string JSONValue::encodedString() const { return Writer().text(*this); }

/// Copies a tree. Containers whose members are still to be copied wait in `left`.
struct JSONValue::Copying {
    struct Pair {
        const JSONValue *from;
        JSONValue *to;
    };

    void copy(const JSONValue &from, JSONValue &to)
    {
        if (from.isContainer())
            left.push_back({&from, &to});
        else
            to.value = from.value;
    }

    void copyMembers(Pair pair)
    {
        if (const auto *array = pair.from->array()) {
            auto &elements = pair.to->value.emplace<Array>(array->size());
            for (std::size_t i = 0; i < elements.size(); ++i)
                copy((*array)[i], elements[i]);
            return;
        }
        auto &members = pair.to->value.emplace<Object>();
        for (const auto &[key, member] : *pair.from->object())
            copy(member, members.emplace_hint(members.end(), key, nullptr)->second);
    }

    std::vector<Pair> left;
};

JSONValue::JSONValue(const JSONValue &other)
{
    if (!other.isContainer()) {
        value = other.value;
        return;
    }
    Copying copying;
    copying.copy(other, *this);
    while (!copying.left.empty()) {
        const auto next = copying.left.back();
        copying.left.pop_back();
        copying.copyMembers(next);
    }
}

JSONValue &JSONValue::operator=(const JSONValue &other) { return *this = JSONValue(other); }

JSONValue &JSONValue::operator=(JSONValue &&other) noexcept
{
    JSONValue old(std::move(*this)); // ends behind the assignment, for `other` may be a part of it
    value = std::move(other.value);
    return *this;
}

/// Takes the containers out of the tree before they are destroyed, so that each is destroyed without others inside.
void JSONValue::dismantle() noexcept
{
    std::vector<JSONValue> left;
    const auto take = [&left](JSONValue &member) {
        if (member.isContainer())
            left.push_back(std::move(member));
    };
    const auto takeMembers = [&take](JSONValue &from) {
        if (auto *array = std::get_if<Array>(&from.value)) {
            std::ranges::for_each(*array, take);
            array->clear();
        } else if (auto *object = std::get_if<Object>(&from.value)) {
            for (auto &[key, member] : *object)
                take(member);
            object->clear();
        }
    };
    takeMembers(*this);
    while (!left.empty()) {
        JSONValue next = std::move(left.back());
        left.pop_back();
        takeMembers(next);
    }
}

bool JSONValue::operator==(const JSONValue &other) const
{
    std::vector<std::pair<const JSONValue *, const JSONValue *>> left{{this, &other}};
    while (!left.empty()) {
        const auto [one, two] = left.back();
        left.pop_back();
        if (const auto *object = one->object()) {
            const auto *same = two->object();
            if (!same || object->size() != same->size())
                return false;
            for (auto at = object->begin(), with = same->begin(); at != object->end(); ++at, ++with) {
                if (at->first != with->first)
                    return false;
                left.emplace_back(&at->second, &with->second);
            }
        } else if (const auto *array = one->array()) {
            const auto *same = two->array();
            if (!same || array->size() != same->size())
                return false;
            for (std::size_t i = 0; i < array->size(); ++i)
                left.emplace_back(&(*array)[i], &(*same)[i]);
        } else if (one->value != two->value) {
            return false;
        }
    }
    return true;
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

JSONValue JSONValue::take(std::string_view key)
{
    auto *members = std::get_if<Object>(&value);
    if (!members)
        return {};
    const auto found = members->find(key);
    return found == members->end() ? JSONValue() : std::exchange(found->second, {});
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
    refuseInput(key);
}

void JSONValue::refuseInput(std::string_view key)
{
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
