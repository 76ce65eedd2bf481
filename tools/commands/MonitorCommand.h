#ifndef TOOLS_COMMANDS_MONITORCOMMAND_H
#define TOOLS_COMMANDS_MONITORCOMMAND_H

struct CommandModel;

CommandModel monitorCommand();

#endif
