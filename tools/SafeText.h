// Texts made fit to be shown: those that come from a stream or from another process's memory hold
// control characters, which a terminal would obey, and bytes that are no UTF-8; and a line may be
// too long.
#ifndef TOOLS_SAFETEXT_H
#define TOOLS_SAFETEXT_H

#include <cstdint>
#include <span>
#include <string>
#include <string_view>

// A text of DVB service information (EN 300 468, annex A): ISO/IEC 6937 unless its first bytes
// select another table. What cannot be read becomes U+FFFD.
std::string dvbText(std::span<const uint8_t> text);

// One word of ASCII: any other byte, the space and the backslash are written as \x20.
std::string escapeBytes(std::string_view bytes);

// One line, with blanks for ASCII's control characters: a file's name or an argument may hold any.
std::string printable(std::string text);

// The lines, each without what is beyond `width` characters.
std::string cutLines(const std::string& text, size_t width);

#endif
