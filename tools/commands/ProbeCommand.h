#ifndef TOOLS_COMMANDS_PROBECOMMAND_H
#define TOOLS_COMMANDS_PROBECOMMAND_H

#include <chrono>
#include <string>

struct CommandModel;

struct ProbeOptions {
    std::string url;
    std::chrono::milliseconds duration{5000};  // from the opening of the socket
    bool json = false;
};

// Receives for a while and prints what came. Throws UsageError, or Failure when no transport stream
// came.
void runProbe(const ProbeOptions& options);

CommandModel probeCommand();

#endif
