// Texts made fit to be shown: those that come from a stream or from another process's memory hold
// control characters, which a terminal would obey, and bytes that are no UTF-8; and a line may be
// too long.
#ifndef TOOLS_BASE_SAFETEXT_H
#define TOOLS_BASE_SAFETEXT_H

#include <string>
#include <string_view>

// One word of ASCII: any other byte, the space and the backslash are written as \x20.
std::string escapeBytes(std::string_view bytes);

// One line, with blanks for ASCII's control characters: a file's name or an argument may hold any.
std::string printable(std::string text);

// The lines, each without what is beyond `width` characters.
std::string cutLines(const std::string& text, size_t width);

#endif
