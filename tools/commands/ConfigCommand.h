#ifndef TOOLS_COMMANDS_CONFIGCOMMAND_H
#define TOOLS_COMMANDS_CONFIGCOMMAND_H

#include <string>

struct CommandModel;

// Adds --config FILE to a command, in place of all arguments and options that it has, but for the
// one named `beside`. `file` stays empty where the option is not given.
void addConfigOption(CommandModel& command, std::string& file, const std::string& beside = "");

CommandModel configCommand();

#endif
