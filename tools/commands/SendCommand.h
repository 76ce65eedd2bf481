#ifndef TOOLS_COMMANDS_SENDCOMMAND_H
#define TOOLS_COMMANDS_SENDCOMMAND_H

struct CommandModel;

CommandModel sendCommand();

#endif
