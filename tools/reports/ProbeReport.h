// What 'probe' reports: the findings about a stream, as much of them as can be read.
#ifndef TOOLS_REPORTS_PROBEREPORT_H
#define TOOLS_REPORTS_PROBEREPORT_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "StreamAnalyzer.h"

struct Arrival {
    std::string url;
    bool rtp = false;
    uint64_t datagrams = 0;
    uint64_t datagramsDropped = 0;  // lost in this process; they show as continuity errors, too
};

struct ProbeReport {
    // A stream of damaged or malicious tables has thousands of programmes of hundreds of PIDs each.
    static constexpr size_t kMostProgrammes = 256;
    static constexpr size_t kMostStreams = 4096;  // of all programmes together
    static constexpr size_t kMostPids = 1024;

    ProbeReport(Arrival its, StreamReport found);

    Arrival arrival;
    StreamReport stream;
    // What was cut off its lists.
    size_t programmesLeftOut = 0;
    size_t streamsLeftOut = 0;
    size_t pidsLeftOut = 0;
};

#endif
