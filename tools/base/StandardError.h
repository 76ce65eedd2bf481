// Standard error, whose reader may be slow, or gone.
#ifndef TOOLS_BASE_STANDARDERROR_H
#define TOOLS_BASE_STANDARDERROR_H

#include <chrono>
#include <string_view>

// Streams go on while nobody reads their messages: what a full pipe or a stopped terminal does not
// take within the patience is dropped, and false returned.
bool printError(std::string_view text,
                std::chrono::milliseconds patience = std::chrono::milliseconds(0));

#endif
