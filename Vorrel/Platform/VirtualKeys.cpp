#include "Vorrel/Platform/VirtualKeys.h"

#include <algorithm>
#include <iterator>

namespace korvane {

namespace {

// clang-format off
constexpr VirtualKey keys[] = {
    {0, 0x61, 30}, {1, 0x73, 31}, {2, 0x64, 32}, {3, 0x66, 33}, {4, 0x68, 35}, {5, 0x67, 34}, {6, 0x7a, 44},
    {7, 0x78, 45}, {8, 0x63, 46}, {9, 0x76, 47}, {10, 0xa7, 86}, {11, 0x62, 48}, {12, 0x71, 16}, {13, 0x77, 17},
    {14, 0x65, 18}, {15, 0x72, 19}, {16, 0x79, 21}, {17, 0x74, 20}, {18, 0x31, 2}, {19, 0x32, 3}, {20, 0x33, 4},
    {21, 0x34, 5}, {22, 0x36, 7}, {23, 0x35, 6}, {24, 0x3d, 13}, {25, 0x39, 10}, {26, 0x37, 8}, {27, 0x2d, 12},
    {28, 0x38, 9}, {29, 0x30, 11}, {30, 0x5d, 27}, {31, 0x6f, 24}, {32, 0x75, 22}, {33, 0x5b, 26}, {34, 0x69, 23},
    {35, 0x70, 25}, {36, 0xff0d, 28}, {37, 0x6c, 38}, {38, 0x6a, 36}, {39, 0x27, 40}, {40, 0x6b, 37}, {41, 0x3b, 39},
    {42, 0x5c, 43}, {43, 0x2c, 51}, {44, 0x2f, 53}, {45, 0x6e, 49}, {46, 0x6d, 50}, {47, 0x2e, 52}, {48, 0xff09, 15},
    {49, 0x20, 57}, {50, 0x60, 41}, {51, 0xff08, 14}, {53, 0xff1b, 1}, {64, 0xffce, 187}, {65, 0xffae, 83},
    {67, 0xffaa, 55}, {69, 0xffab, 78}, {75, 0xffaf, 98}, {76, 0xff8d, 96}, {78, 0xffad, 74}, {79, 0xffcf, 188},
    {80, 0xffd0, 189}, {81, 0xffbd, 117}, {82, 0xffb0, 82}, {83, 0xffb1, 79}, {84, 0xffb2, 80}, {85, 0xffb3, 81},
    {86, 0xffb4, 75}, {87, 0xffb5, 76}, {88, 0xffb6, 77}, {89, 0xffb7, 71}, {90, 0xffd1, 190}, {91, 0xffb8, 72},
    {92, 0xffb9, 73}, {96, 0xffc2, 63}, {97, 0xffc3, 64}, {98, 0xffc4, 65}, {99, 0xffc0, 61}, {100, 0xffc5, 66},
    {101, 0xffc6, 67}, {103, 0xffc8, 87}, {105, 0xffca, 183}, {106, 0xffcd, 186}, {107, 0xffcb, 184}, {109, 0xffc7, 68},
    {111, 0xffc9, 88}, {113, 0xffcc, 185}, {114, 0xff63, 110}, {115, 0xff50, 102}, {116, 0xff55, 104},
    {117, 0xffff, 111}, {118, 0xffc1, 62}, {119, 0xff57, 107}, {120, 0xffbf, 60}, {121, 0xff56, 109}, {122, 0xffbe, 59},
    {123, 0xff51, 105}, {124, 0xff53, 106}, {125, 0xff54, 108}, {126, 0xff52, 103},
};
// clang-format on

const VirtualKey *find(std::uint32_t VirtualKey::*number, std::uint32_t value)
{
    const auto found = std::ranges::find(keys, value, number);
    return found == std::end(keys) ? nullptr : found;
}

} // namespace

std::span<const VirtualKey> virtualKeys() { return keys; }

const VirtualKey *virtualKeyNamed(std::uint32_t keysym)
{
    const bool capital = keysym >= 'A' && keysym <= 'Z';
    return find(&VirtualKey::keysym, capital ? keysym + ('a' - 'A') : keysym);
}

const VirtualKey *virtualKeyAt(std::uint32_t position) { return find(&VirtualKey::position, position); }

const VirtualKey *virtualKeyOfCode(std::uint32_t code) { return find(&VirtualKey::code, code); }

} // namespace korvane
