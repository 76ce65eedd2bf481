#ifndef TOOLS_COMMANDS_RECEIVECOMMAND_H
#define TOOLS_COMMANDS_RECEIVECOMMAND_H

struct CommandModel;

CommandModel receiveCommand();

#endif
