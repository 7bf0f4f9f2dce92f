#include "Support/Base64.h"

#include <cstdint>

namespace korvane {

std::string base64(std::string_view bytes)
{
    static constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t at = 0; at < bytes.size(); at += 3) {
        std::uint32_t group = 0;
        for (std::size_t i = 0; i < 3; ++i)
            group = group << 8 | (at + i < bytes.size() ? static_cast<unsigned char>(bytes[at + i]) : 0u);
        for (std::size_t i = 0; i < 4; ++i)
            text += at + i <= bytes.size() ? alphabet[group >> (18 - 6 * i) & 63] : '=';
    }
    return text;
}

} // namespace korvane
