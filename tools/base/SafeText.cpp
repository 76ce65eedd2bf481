#include "base/SafeText.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>

std::string escapeBytes(std::string_view bytes) {
    std::string result;
    for (const char c : bytes) {
        if (c > 0x20 && c < 0x7F && c != '\\')
            result += c;
        else
            result += fmt::format("\\x{:02x}", static_cast<uint8_t>(c));
    }
    return result;
}

std::string printable(std::string text) {
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c == 0x7F; }, ' ');
    return text;
}

std::string cutLines(const std::string& text, size_t width) {
    std::string result;
    size_t column = 0;
    for (const char c : text) {
        const bool continues = (static_cast<uint8_t>(c) & 0xC0) == 0x80;  // of a UTF-8 character
        if (c == '\n')
            column = 0;
        else if (!continues)
            ++column;
        if (column <= width)
            result += c;
    }
    return result;
}
