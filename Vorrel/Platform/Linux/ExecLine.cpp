#include "Vorrel/Platform/Linux/ExecLine.h"

#include <utility>

namespace korvane {

namespace {

constexpr std::string_view targetCodes = "fFuU";
constexpr std::string_view valueCodes = "ick";
constexpr std::string_view deprecatedCodes = "dDnNvm";

bool isIn(std::string_view codes, char code) { return codes.find(code) != std::string_view::npos; }

} // namespace

void ExecLine::Word::append(char byte)
{
    if (pieces.empty() || pieces.back().code)
        pieces.push_back({});
    pieces.back().text += byte;
}

/// Whether the word is nothing but one code for files or addresses.
bool ExecLine::Word::isPlace() const { return pieces.size() == 1 && pieces[0].code && isIn(targetCodes, pieces[0].code); }

/// Reads one value from its first byte to its last.
class ExecLine::Reader {
public:
    explicit Reader(std::string_view value) : rest(value) { }

    bool readAll()
    {
        while (!rest.empty()) {
            const char byte = take();
            if (byte == ' ' || byte == '\t' || byte == '\n')
                endWord();
            else if (!readInWord(byte))
                return false;
        }
        endWord();
        return true;
    }

    std::vector<Word> words;

private:
    char take()
    {
        const char byte = rest.front();
        rest.remove_prefix(1);
        return byte;
    }

    bool readInWord(char byte)
    {
        inWord = true;
        switch (byte) {
        case '"': return readQuoted('"');
        case '\'': return readQuoted('\'');
        case '%': return readCode();
        case '\\':
            if (rest.empty())
                return false;
            word.append(take());
            return true;
        default: word.append(byte); return true;
        }
    }

    bool readQuoted(char quote)
    {
        word.quoted = true;
        explicitWord = true;
        while (!rest.empty()) {
            const char byte = take();
            if (byte == quote)
                return true;
            if (byte == '%' ? !readCode() : !readQuotedByte(byte, quote))
                return false;
        }
        return false;
    }

    /// In double quotes a backslash escapes the four characters that a shell would act on.
    bool readQuotedByte(char byte, char quote)
    {
        if (byte == '\\' && quote == '"' && !rest.empty() && isIn("\"`$\\", rest.front()))
            byte = take();
        word.append(byte);
        return true;
    }

    bool readCode()
    {
        if (rest.empty())
            return false;
        const char code = take();
        if (code == '%') {
            word.append('%');
            return true;
        }
        if (isIn(deprecatedCodes, code)) {
            dropped = true;
            return true;
        }
        if (!isIn(targetCodes, code) && !isIn(valueCodes, code))
            return false;
        word.pieces.push_back({code});
        return true;
    }

    void endWord()
    {
        // A pair of quotes with nothing between them is an argument; a deprecated code is none.
        if (!word.pieces.empty() || (inWord && explicitWord && !dropped))
            words.push_back(std::move(word));
        word = {};
        inWord = explicitWord = dropped = false;
    }

    std::string_view rest;
    Word word;
    bool inWord = false;
    bool explicitWord = false; // the word has quotes, so that it counts although it may be empty
    bool dropped = false; // a deprecated code stood in the word
};

std::optional<ExecLine> ExecLine::parse(std::string_view value)
{
    if (value.find('\0') != std::string_view::npos)
        return std::nullopt;
    Reader reader(value);
    if (!reader.readAll() || reader.words.empty())
        return std::nullopt;
    const auto &program = reader.words.front().pieces;
    if (program.size() != 1 || program[0].code)
        return std::nullopt;
    ExecLine line;
    line.parsed = std::move(reader.words);
    return line;
}

std::vector<std::string> ExecLine::words(const Input &input) const
{
    std::vector<std::string> result;
    bool placed = false;
    const auto targetFor = [&](char code) {
        const bool wantsPath = (code == 'f' || code == 'F') && !input.target->path.empty();
        return wantsPath ? input.target->path : input.target->uri;
    };
    const auto place = [&](char code) {
        if (std::exchange(placed, true))
            return;
        result.insert(result.end(), input.arguments.begin(), input.arguments.end());
        if (input.target)
            result.push_back(targetFor(code));
    };
    const auto filled = [&](const Word &word, const Piece &piece) -> std::string {
        switch (piece.code) {
        case 0: return piece.text;
        case 'c': return input.name;
        case 'k': return input.location;
        case 'i': return {};
        default:
            // Not inside quotes: the word may be a text for a shell, and a file's name must never become part of one.
            return word.quoted || !input.target || std::exchange(placed, true) ? std::string() : targetFor(piece.code);
        }
    };

    for (const auto &word : parsed) {
        if (word.isPlace()) {
            place(word.pieces[0].code);
            continue;
        }
        if (word.pieces.size() == 1 && word.pieces[0].code == 'i') {
            if (!input.icon.empty())
                result.insert(result.end(), {"--icon", input.icon});
            continue;
        }
        std::string text;
        bool holdsText = word.pieces.empty();
        for (const auto &piece : word.pieces) {
            text += filled(word, piece);
            holdsText = holdsText || !piece.code;
        }
        if (holdsText || !text.empty())
            result.push_back(std::move(text));
    }
    if (!placed) {
        result.insert(result.end(), input.arguments.begin(), input.arguments.end());
        if (input.target)
            result.push_back(targetFor('f'));
    }
    return result;
}

} // namespace korvane
