// Characters that a text from elsewhere may not bring to a terminal.
#ifndef STREAMS_INVISIBLE_H
#define STREAMS_INVISIBLE_H

#include <algorithm>
#include <iterator>

// Whether the character shows nothing of its own: control codes, DVB's own (emphasis) among them,
// what turns the direction of writing or joins letters, blanks without a glyph, selectors of
// variants, tags. With these a name can look like another one, or be longer than it seems.
inline bool isInvisible(char32_t c) {
    struct Range {
        char32_t first;
        char32_t last;
    };
    constexpr Range kRanges[] = {
        {0x0, 0x1F},        {0x7F, 0x9F},       {0xAD, 0xAD},           {0x34F, 0x34F},
        {0x61C, 0x61C},     {0x115F, 0x1160},   {0x17B4, 0x17B5},       {0x180B, 0x180F},
        {0x200B, 0x200F},   {0x2028, 0x202E},   {0x2060, 0x206F},       {0x3164, 0x3164},
        {0xD800, 0xDFFF},   {0xE080, 0xE09F},   {0xFE00, 0xFE0F},       {0xFEFF, 0xFEFF},
        {0xFFA0, 0xFFA0},   {0xFFF0, 0xFFFB},   {0xFFFE, 0xFFFF},       {0x1BCA0, 0x1BCA3},
        {0x1D173, 0x1D17A}, {0xE0000, 0xE0FFF}, {0x110000, 0xFFFFFFFF},
    };
    return std::any_of(std::begin(kRanges), std::end(kRanges),
                       [c](Range range) { return c >= range.first && c <= range.last; });
}

#endif
