#ifndef TOOLS_RECEIVECOMMAND_H
#define TOOLS_RECEIVECOMMAND_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace CLI {
class App;
}

struct ReceiveOptions {
    std::string url;
    std::string file;                                   // "-" = standard output
    std::optional<std::chrono::milliseconds> duration;  // from the opening of the socket
    std::optional<uint64_t> bytes;
};

// Records until a limit is reached or a signal comes. Throws UsageError or Failure, the latter also
// when nothing, or less than was asked for, has come.
void runReceive(const ReceiveOptions& options);

// Adds the command to the command line.
void addReceiveCommand(CLI::App& app);

#endif
