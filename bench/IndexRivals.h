#pragma once

#include "Vorrel/FileIndex/FileSearchStatement.h"

#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

/// Other programs, measured or talked to from outside. Everything that goes wrong here throws `std::runtime_error`.
namespace korvane::bench {

/// Microseconds on a clock that never jumps.
double microseconds();

/// A program whose standard input and output are here. The destructor ends it.
class Conversation {
public:
    explicit Conversation(const std::vector<std::string> &words);
    ~Conversation();
    Conversation(const Conversation &) = delete;

    void say(const std::string &line) const;
    /// The next line, without its end; throws when the program has ended or says nothing for `seconds`.
    std::string hear(int seconds = 900);
    std::string ask(const std::string &line, int seconds = 900);
    pid_t process() const { return child; }

private:
    pid_t child = -1;
    int input = -1, output = -1;
    std::string heard;
};

/// From the start of a program to its end, with its output thrown away. Its name is looked for as a shell does.
double microsecondsOf(const std::vector<std::string> &words);
/// What a program prints.
std::string outputOf(const std::vector<std::string> &words);
bool isInstalled(const std::string &program);

/// The bare C program over one store and one statement, with a connection that stays open.
class BareSearch {
public:
    BareSearch(const std::string &store, const CompiledSearch &search, const std::string &scratch);
    std::vector<double> run(int times); ///< Microseconds.

private:
    std::optional<Conversation> program;
};

} // namespace korvane::bench
