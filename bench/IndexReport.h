#pragma once

#include "bench/Table.h"

#include <cstdio>
#include <string>
#include <vector>

namespace korvane::bench {

/// The figures of a run and how they stand to their limits.
class Report {
public:
    /// Also writes every figure that is noted to this file, a line "name rows value" each; empty: nowhere.
    explicit Report(const std::string &figures) : file(figures.empty() ? nullptr : std::fopen(figures.c_str(), "a")) { }
    ~Report()
    {
        if (file)
            std::fclose(file);
    }
    Report(const Report &) = delete;

    /// "kept" or "EXCEEDED", and remembers it.
    std::string atMost(const std::string &what, double value, double limit, int decimals = 2)
    {
        const bool kept = value <= limit;
        checks.push_back({what, number(value, decimals), number(limit, decimals), kept ? "kept" : "EXCEEDED"});
        exceeded = exceeded || !kept;
        return kept ? "kept" : "EXCEEDED";
    }
    void notMeasured(const std::string &what, const std::string &why)
    {
        std::printf("\nNot measured: %s: %s\n", what.c_str(), why.c_str());
        std::fflush(stdout);
        incomplete = true;
    }
    void note(const std::string &name, std::size_t rows, double value)
    {
        if (file)
            std::fprintf(file, "%s %zu %g\n", name.c_str(), rows, value), std::fflush(file);
    }

    /// All limits once more.
    void printLimits() const
    {
        if (checks.empty())
            return;
        std::printf("\n### Limits\n\n");
        Table table({"Figure", "Measured", "Limit", ""});
        for (const auto &check : checks)
            table.add(check);
        table.print();
    }
    int status() const { return incomplete ? 2 : exceeded ? 1 : 0; }

private:
    std::FILE *file;
    std::vector<std::vector<std::string>> checks;
    bool exceeded = false, incomplete = false;
};

} // namespace korvane::bench
