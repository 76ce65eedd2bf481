// The sections of the bench; each measures, prints its tables and states its goals.
#ifndef BENCH_SCENARIOS_H
#define BENCH_SCENARIOS_H

#include <string>

#include "Measure.h"
#include "Report.h"
#include "Traffic.h"

struct Settings {
    bool quick = false;
    bool peers = false;
    int rounds = 3;
    double seconds = 5.0;       // of one measurement
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

// One measurement of a side, for the growth of its cost: columns as in the tables of receiving and
// sending.
Values receiveOnce(bool module, Load load, double seconds);
Values sendOnce(bool module, Load load, double seconds);

// Columns that more than one table has.
inline constexpr const char* kCost = "us/datagram";
inline constexpr const char* kCore = "% of core";
inline constexpr const char* kWakeups = "wake-ups/s";
Values costOf(const Meter::Usage& usage, double datagrams);

#endif
