// The page's files, which are part of the program.
#ifndef TOOLS_PAGE_PAGEFILES_H
#define TOOLS_PAGE_PAGEFILES_H

#include <string_view>

extern const std::string_view kIndexHtml;
extern const std::string_view kPageCss;
extern const std::string_view kPageJs;

#endif
