#ifndef TOOLS_COMMANDS_RELAYCOMMAND_H
#define TOOLS_COMMANDS_RELAYCOMMAND_H

#include <vector>

#include "engine/Jobs.h"

struct CommandModel;

// Sends on what arrives until SIGINT or SIGTERM comes. Job by job, the inputs take receive channels
// 0, 1, ..., and the outputs send channels 0, 1, .... Throws UsageError, or Failure when the
// sockets of all jobs, or, at the end, of one of them could not be opened.
void runRelay(const std::vector<RelayJob>& jobs);

CommandModel relayCommand();

#endif
