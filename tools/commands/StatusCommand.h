#ifndef TOOLS_COMMANDS_STATUSCOMMAND_H
#define TOOLS_COMMANDS_STATUSCOMMAND_H

#include <string>

struct CommandModel;

struct StatusOptions {
    std::string path;
    bool all = false;
    bool json = false;
    bool prometheus = false;
};

// Prints the channel table of the running host. Throws Failure when there is none.
void runStatus(const StatusOptions& options);

CommandModel statusCommand();

// What 'status' and 'top' both say about the table.
std::string tableHelp();

#endif
