// The transport stream that the demonstration sends.
#ifndef TOOLS_COMMANDS_DEMOSTREAM_H
#define TOOLS_COMMANDS_DEMOSTREAM_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "base/StopSignal.h"

struct DemoStream {
    std::string origin;         // for the reader
    std::vector<uint8_t> data;  // whole datagram payloads, at least two
    size_t packetSize = 0;
    uint32_t bitrate_bps = 0;

    size_t payloadBytes() const;
    size_t datagrams() const { return data.size() / payloadBytes(); }
    std::span<const uint8_t> datagram(size_t index) const;
};

// The first seconds of the file; without one, of a stream that ffmpeg makes; without ffmpeg, of
// the sample ("" = where it is installed, or lies in the source tree). Throws Failure.
DemoStream loadDemoStream(const std::string& file, const std::string& sample, double seconds,
                          StopSignal& stop);

#endif
