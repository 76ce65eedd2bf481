#ifndef TOOLS_COMMANDS_RELAYCOMMAND_H
#define TOOLS_COMMANDS_RELAYCOMMAND_H

#include <chrono>
#include <optional>
#include <vector>

#include "engine/Jobs.h"

struct CommandModel;

// Sends on what arrives until SIGINT or SIGTERM comes. Job by job, the inputs take receive channels
// 0, 1, ..., and the outputs send channels 0, 1, .... Sockets are tried for ever or, to begin
// with, for that long. Throws UsageError, or Failure when a relay could not begin.
void runRelay(const std::vector<RelayJob>& jobs, std::optional<std::chrono::milliseconds> patience);

CommandModel relayCommand();

#endif
