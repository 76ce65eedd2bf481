// What came on one channel, for people and for scripts.
#ifndef TOOLS_COMMANDS_RECEIVESTATISTICS_H
#define TOOLS_COMMANDS_RECEIVESTATISTICS_H

#include <cstdint>
#include <optional>
#include <string>

#include "engine/ReceiveChain.h"

struct ReceiveStatistics {
    std::string url;
    std::string output;
    uint64_t files = 0;
    uint64_t datagrams = 0;
    uint64_t datagramsDropped = 0;  // mostly since the output took too little
    uint64_t bytes = 0;             // recorded
    uint64_t packets = 0;
    uint64_t packetSize = 0;  // 0 = no packets were found
    uint64_t continuityErrors = 0;
    uint64_t syncLosses = 0;
    uint64_t skippedBytes = 0;  // which are not TS packets
    uint64_t gaps = 0;          // places where they were
    std::optional<bool> rtp;    // as detected last; none = nothing came
    double seconds = 0.0;       // since the socket was opened
    double dataSeconds = 0.0;   // from the first data to the last
    std::optional<RepairReport> repairs;
    std::string error;  // empty = done

    uint64_t bitrate_bps() const;  // mean while data came
};

// Of a chain that has ended.
ReceiveStatistics makeStatistics(const ReceiveChain& chain);

// "udp://...: skipped 28 bytes (1 gap) that are not TS packets".
std::string describeSkipped(const ReceiveStatistics& statistics);

// "received 1.3 MB in 0:07 from ...", one line.
std::string describe(const ReceiveStatistics& statistics);

// A JSON object in one line.
std::string toJson(const ReceiveStatistics& statistics);

#endif
