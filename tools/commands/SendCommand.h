#ifndef TOOLS_COMMANDS_SENDCOMMAND_H
#define TOOLS_COMMANDS_SENDCOMMAND_H

#include <vector>

#include "engine/Jobs.h"

struct CommandModel;

// Sends each job's stream on a channel of its own, at most 16, and returns when all of them have
// left. A job that fails does not stop the others. Throws UsageError before anything is opened, or
// Failure in the end.
void runSend(const std::vector<SendJob>& jobs);

CommandModel sendCommand();

#endif
