#ifndef TOOLS_SENDCOMMAND_H
#define TOOLS_SENDCOMMAND_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

struct SendJob {
    std::string input;  // "-" = standard input
    std::string url;
    std::optional<uint32_t> bitrate_bps;  // none = by the stream's PCRs
    bool loop = false;
    // Both in the stream's own time: what is skipped at the beginning, and what is sent.
    std::optional<std::chrono::milliseconds> start = std::nullopt;
    std::optional<std::chrono::milliseconds> duration = std::nullopt;
};

// Sends each job's stream on a channel of its own, at most 16, and returns when all of them have
// left. A job that fails does not stop the others. Throws UsageError before anything is opened, or
// Failure in the end.
void runSend(const std::vector<SendJob>& jobs);

// Adds the command to the command line.
void addSendCommand(CLI::App& app);

#endif
