// What the commands' arguments and help texts have in common.
#ifndef TOOLS_COMMANDLINE_COMMANDLINE_H
#define TOOLS_COMMANDLINE_COMMANDLINE_H

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

inline constexpr auto kExitCodes = "Exit code: 0 done, 1 failed, 2 wrong usage.";

// How stream URLs are written, and the exit codes; stands at the end of a command's help.
std::string urlHelp();

// The number in `text`, with k, M or G where wanted. Throws UsageError, which names the option,
// when it is none or out of range.
uint64_t quantity(const std::string& option, const std::string& text, uint64_t smallest,
                  uint64_t largest);

// The same for a bitrate in bits per second.
uint32_t bitrate(const std::string& option, const std::string& text);

// The same for a time in seconds, fractions included.
std::chrono::milliseconds duration(const std::string& option, const std::string& text,
                                   double smallest, double largest);

// For arguments in pairs. Throws UsageError where the last one lacks its second part.
void checkPairs(const std::vector<std::string>& given, const std::string& second);

#endif
