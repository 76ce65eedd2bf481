#ifndef TOOLS_COMMANDS_RECEIVECOMMAND_H
#define TOOLS_COMMANDS_RECEIVECOMMAND_H

#include <chrono>
#include <optional>
#include <vector>

#include "engine/Jobs.h"

struct CommandModel;

// Records each job on the channel of its number, until its limit is reached or SIGINT or SIGTERM
// comes. `statistics` prints one line of JSON per job to standard error in the end. Without a
// patience, whatever fails is tried again for ever. Throws UsageError, or Failure when one of the
// jobs has received nothing or less than was asked for; the others go on.
void runReceive(const std::vector<ReceiveJob>& jobs, bool statistics,
                std::optional<std::chrono::milliseconds> patience);

CommandModel receiveCommand();

#endif
