#ifndef TOOLS_COMMANDS_RECEIVECOMMAND_H
#define TOOLS_COMMANDS_RECEIVECOMMAND_H

#include <vector>

#include "engine/Jobs.h"

struct CommandModel;

// Records each job on the channel of its number, until its limit is reached or SIGINT or SIGTERM
// comes. `statistics` prints one line of JSON per job to standard error in the end. Throws
// UsageError, or Failure when one of the jobs has received nothing or less than was asked for; the
// others go on.
void runReceive(const std::vector<ReceiveJob>& jobs, bool statistics);

CommandModel receiveCommand();

#endif
