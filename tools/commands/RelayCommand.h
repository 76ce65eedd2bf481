#ifndef TOOLS_COMMANDS_RELAYCOMMAND_H
#define TOOLS_COMMANDS_RELAYCOMMAND_H

struct CommandModel;

CommandModel relayCommand();

#endif
