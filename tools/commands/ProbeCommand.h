#ifndef TOOLS_COMMANDS_PROBECOMMAND_H
#define TOOLS_COMMANDS_PROBECOMMAND_H

#include <chrono>
#include <string>

namespace CLI {
class App;
}

struct ProbeOptions {
    std::string url;
    std::chrono::milliseconds duration{5000};  // from the opening of the socket
    bool json = false;
};

// Receives for a while and prints what came. Throws UsageError, or Failure when no transport stream
// came.
void runProbe(const ProbeOptions& options);

// Adds the command to the command line.
void addProbeCommand(CLI::App& app);

#endif
