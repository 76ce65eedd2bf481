// The sections of the bench; each measures, prints its tables and states its goals.
#ifndef BENCH_SCENARIOS_H
#define BENCH_SCENARIOS_H

#include <string>

#include "Report.h"
#include "Traffic.h"

struct Settings {
    bool quick = false;
    bool peers = false;
    int rounds = 3;
    double seconds = 6.0;       // of one measurement
    double longSeconds = 60.0;  // of the one that shows the long-run rate
    std::string folder;         // where the bench's own programs are
};

inline constexpr Load kLoad{kStreams, 8e6};  // of the goals

void benchReceive(Report& report, const Settings& settings);
void benchCapacity(Report& report, const Settings& settings);
void benchSend(Report& report, const Settings& settings);
void benchUnpaced(Report& report, const Settings& settings);
void benchRing(Report& report, const Settings& settings);
void benchIdle(Report& report, const Settings& settings);
void benchLoad(Report& report, const Settings& settings);
void benchGrowth(Report& report, const Settings& settings);

// One measurement of the CPU that a side takes, for the growth of it: columns as in the tables of
// receiving and sending.
Values receiveOnce(bool module, Load load, double seconds);
Values sendOnce(bool module, Load load, double seconds);

// Column names that more than one section uses.
inline constexpr const char* kCost = "us/datagram";
inline constexpr const char* kCore = "% of core";
inline constexpr const char* kWakeups = "wake-ups/s";
inline constexpr const char* kMemory = "PSS MiB";

#endif
