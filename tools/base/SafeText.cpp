#include "base/SafeText.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdint>

#include "Invisible.h"

namespace {

// Of a byte that is not the first one of a UTF-8 character.
bool continues(char c) {
    return (static_cast<uint8_t>(c) & 0xC0) == 0x80;
}

struct Character {
    char32_t code;
    size_t bytes;  // 0 = it is no UTF-8
};

// The one that the text begins with.
Character firstCharacter(std::string_view text) {
    const auto first = static_cast<uint8_t>(text.front());
    if (first < 0x80)
        return {first, 1};
    const size_t bytes = first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    if (first < 0xC2 || first > 0xF4 || text.size() < bytes)
        return {0, 0};
    char32_t code = first & (0x7Fu >> bytes);
    for (const char c : text.substr(1, bytes - 1)) {
        if (!continues(c))
            return {0, 0};
        code = code << 6 | (static_cast<uint8_t>(c) & 0x3F);
    }
    return {code, bytes};
}

}  // namespace

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

std::string printable(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const Character character = firstCharacter(text);
        if (character.bytes == 0)
            result += '?';
        else if (isInvisible(character.code))
            result += ' ';
        else
            result += text.substr(0, character.bytes);
        text.remove_prefix(std::max<size_t>(character.bytes, 1));
    }
    return result;
}

std::string cutLines(const std::string& text, size_t width) {
    std::string result;
    size_t column = 0;
    for (const char c : text) {
        if (c == '\n')
            column = 0;
        else if (!continues(c))
            ++column;
        if (column <= width)
            result += c;
    }
    return result;
}

std::string shorten(const std::string& line, size_t width) {
    const std::string cut = cutLines(line, width);
    return cut == line ? line : cutLines(line, width - std::min<size_t>(width, 3)) + "...";
}
