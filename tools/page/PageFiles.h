// The page's files, which are part of the program.
#ifndef TOOLS_PAGE_PAGEFILES_H
#define TOOLS_PAGE_PAGEFILES_H

#include <string_view>

// Returns the file of that name, such as "page.css"; data() is null when there is none.
std::string_view pageFile(std::string_view name);

#endif
