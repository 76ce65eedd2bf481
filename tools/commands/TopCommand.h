#ifndef TOOLS_COMMANDS_TOPCOMMAND_H
#define TOOLS_COMMANDS_TOPCOMMAND_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

struct CommandModel;

struct TopOptions {
    std::string path;
    std::chrono::milliseconds interval{1000};
    std::optional<uint64_t> count;  // of passes
    bool all = false;
};

// Shows the channel table again and again, until a signal comes or, on a terminal, 'q' is pressed.
// Throws Failure when there was no table in any pass.
void runTop(const TopOptions& options);

CommandModel topCommand();

#endif
