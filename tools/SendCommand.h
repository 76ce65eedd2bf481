#ifndef TOOLS_SENDCOMMAND_H
#define TOOLS_SENDCOMMAND_H

#include <cstdint>
#include <optional>
#include <string>

namespace CLI {
class App;
}

struct SendOptions {
    std::string file;  // "-" = standard input
    std::string url;
    std::optional<uint32_t> bitrate_bps;  // none = by the stream's PCRs
    bool loop = false;
};

// Sends the stream and returns when all of it has left. Throws UsageError or Failure.
void runSend(const SendOptions& options);

// Adds the command to the command line.
void addSendCommand(CLI::App& app);

#endif
