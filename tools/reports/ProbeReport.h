// How the findings about a stream are printed.
#ifndef TOOLS_REPORTS_PROBEREPORT_H
#define TOOLS_REPORTS_PROBEREPORT_H

#include <string>

#include "StreamAnalyzer.h"

struct Arrival {
    std::string url;
    bool rtp = false;
    uint64_t datagrams = 0;
};

// For people: 80 columns, but for names that are longer.
std::string probeText(const Arrival& arrival, const StreamReport& report);

// One JSON object.
std::string probeJson(const Arrival& arrival, const StreamReport& report);

#endif
