#pragma once

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

/// What the benches share: medians, and tables that can be pasted into a document.
namespace korvane::bench {

template <class T> T median(std::vector<T> values)
{
    const auto middle = values.begin() + std::ptrdiff_t(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

inline double percentile95(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[(values.size() - 1) * 95 / 100];
}

inline std::string number(double value, int decimals)
{
    char text[64];
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    return text;
}

/// A table in Markdown; all columns but the first stand at the right.
class Table {
public:
    explicit Table(std::vector<std::string> head) : rows{std::move(head)} { }
    void add(std::vector<std::string> row) { rows.push_back(std::move(row)); }

    void print() const
    {
        std::vector<std::size_t> widths(rows.front().size(), 4);
        for (const auto &row : rows)
            for (std::size_t i = 0; i < row.size(); ++i)
                widths[i] = std::max(widths[i], row[i].size());
        for (std::size_t line = 0; line < rows.size(); ++line) {
            for (std::size_t i = 0; i < widths.size(); ++i)
                std::printf(i == 0 ? "| %-*s " : "| %*s ", int(widths[i]), rows[line][i].c_str());
            std::puts("|");
            if (line == 0)
                printRule(widths);
        }
        std::fflush(stdout);
    }

private:
    static void printRule(const std::vector<std::size_t> &widths)
    {
        for (std::size_t i = 0; i < widths.size(); ++i)
            std::printf("|%s%s", std::string(widths[i] + 1, '-').c_str(), i == 0 ? "-" : ":");
        std::puts("|");
    }

    std::vector<std::vector<std::string>> rows;
};

} // namespace korvane::bench
