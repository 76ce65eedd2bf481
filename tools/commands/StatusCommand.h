#ifndef TOOLS_COMMANDS_STATUSCOMMAND_H
#define TOOLS_COMMANDS_STATUSCOMMAND_H

#include <sys/types.h>

#include <optional>
#include <string>

struct CommandModel;
struct Machine;

struct StatusOptions {
    std::string path;          // "" = all hosts
    std::optional<pid_t> pid;  // the only one that is shown
    bool all = false;
    bool json = false;
    bool prometheus = false;
};

// Prints the channels of the running hosts. Throws Failure when there is neither a host nor a
// table, unless metrics are asked for.
void runStatus(const StatusOptions& options);

CommandModel statusCommand();

// What 'status' and 'top' have in common: what they say about tables, the options that select one,
// and the value of --pid.
std::string tableHelp();
void addSelection(CommandModel& command, std::string& pid, std::string& path);
std::optional<pid_t> processNumber(const std::string& pid);

// Says why nothing can be shown.
[[noreturn]] void failForNothing(const Machine& machine);

#endif
