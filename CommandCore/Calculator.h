#pragma once

#include <optional>
#include <string>
#include <string_view>

/// Simple arithmetic typed into the palette. Pure functions, cheap enough to be asked at every
/// keystroke; any thread.
namespace korvane::Calculator {

/// The value of an arithmetic expression over + - * / % × ÷, signs, parentheses and decimal numbers.
/// Nothing for every other text, for a number without an operator, for a division by zero and for a
/// value that is not finite. Nesting may be of any depth.
std::optional<double> value(std::string_view text);

/// The number as the palette shows it, the same in every locale: whole below 10^15 without a fraction,
/// else with ten significant digits.
std::string format(double value);

} // namespace korvane::Calculator
