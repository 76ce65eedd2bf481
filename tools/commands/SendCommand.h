#ifndef TOOLS_COMMANDS_SENDCOMMAND_H
#define TOOLS_COMMANDS_SENDCOMMAND_H

#include <chrono>
#include <optional>
#include <vector>

#include "engine/Jobs.h"

struct CommandModel;

// Sends each job's stream on a channel of its own, at most 16, and returns when all of them have
// left. A job that fails does not stop the others; with a limit to the patience, a job fails whose
// output does not begin. Throws UsageError before anything is opened, or Failure in the end.
void runSend(const std::vector<SendJob>& jobs, std::optional<std::chrono::milliseconds> patience);

CommandModel sendCommand();

#endif
