// Texts made fit to be shown: those that come from a stream or from another process's memory hold
// control characters, which a terminal would obey, and bytes that are no UTF-8; and a line may be
// too long.
#ifndef TOOLS_BASE_SAFETEXT_H
#define TOOLS_BASE_SAFETEXT_H

#include <string>
#include <string_view>

// One word of ASCII: any other byte, the space and the backslash are written as \x20.
std::string escapeBytes(std::string_view bytes);

// One line of UTF-8, with blanks for control characters and for whatever else is invisible, and '?'
// for bytes that are no UTF-8: a file's name or an argument may hold any.
std::string printable(std::string_view text);

// The lines, each without what is beyond `width` characters.
std::string cutLines(const std::string& text, size_t width);

// The line, or as much of it as fits into `width` characters together with "...".
std::string shorten(const std::string& line, size_t width);

#endif
