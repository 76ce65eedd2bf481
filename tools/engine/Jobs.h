// What a service is to do: an entry of a configuration file, or the arguments of one command.
#ifndef TOOLS_ENGINE_JOBS_H
#define TOOLS_ENGINE_JOBS_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

struct SendJob {
    std::string input;  // "-" = standard input
    std::string url;
    std::optional<uint32_t> bitrate_bps;  // none = by the stream's PCRs
    bool loop = false;
    // Both in the stream's own time: what is skipped at the beginning, and what is sent.
    std::optional<std::chrono::milliseconds> start = std::nullopt;
    std::optional<std::chrono::milliseconds> duration = std::nullopt;
};

struct ReceiveJob {
    std::string url;
    std::string output;                                 // "-" = standard output; strftime's % signs
    std::optional<std::chrono::milliseconds> duration;  // from the opening of the socket
    std::optional<uint64_t> bytes;
    std::optional<std::chrono::milliseconds> idleTimeout;  // ends without data for so long
    std::optional<uint64_t> rotateBytes;                   // a new file after so many bytes
    std::optional<std::chrono::milliseconds> rotateTime;   // and after so long
};

struct RelayJob {
    std::string from;
    std::vector<std::string> to;
    std::optional<uint32_t> bitrate_bps;  // none = by the stream's PCRs
};

#endif
