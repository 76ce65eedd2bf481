#ifndef TOOLS_COMMANDS_TOPCOMMAND_H
#define TOOLS_COMMANDS_TOPCOMMAND_H

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

struct CommandModel;

struct TopOptions {
    std::string path;          // "" = all hosts
    std::optional<pid_t> pid;  // the only one that is shown
    std::chrono::milliseconds interval{1000};
    std::optional<uint64_t> count;  // of passes
    bool all = false;
};

// Shows the hosts' channels again and again, until a signal comes or, on a terminal, 'q' is
// pressed. Throws Failure when there was neither a host nor a table in any pass.
void runTop(const TopOptions& options);

CommandModel topCommand();

#endif
