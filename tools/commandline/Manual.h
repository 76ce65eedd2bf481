#ifndef TOOLS_COMMANDLINE_MANUAL_H
#define TOOLS_COMMANDLINE_MANUAL_H

#include "commandline/CommandModel.h"

// The command that prints manual pages (mdoc), made from the help of `root`, which outlives it, and
// of its commands. Hidden: it is for those who build and package the tool.
CommandModel manualCommand(const CommandModel& root);

#endif
