#ifndef TOOLS_COMMANDLINE_PARSER_H
#define TOOLS_COMMANDLINE_PARSER_H

#include "commandline/CommandModel.h"

// Stores what the arguments give and runs the action of the command that they name, or prints the
// help or `version` that they ask for. Throws UsageError, or what the action throws.
void runCommandLine(const CommandModel& root, const std::string& version, int argc,
                    const char* const* argv);

#endif
