#ifndef TOOLS_COMMANDLINE_COMPLETION_H
#define TOOLS_COMMANDLINE_COMPLETION_H

#include "commandline/CommandModel.h"

// The command that prints a shell's completion script for all commands of `root`, which outlives
// it. Hidden: it is for those who build and package the tool, and for shells that load completions
// from a command.
CommandModel completionCommand(const CommandModel& root);

#endif
