// What is compared: the bare loops and the module, and other programs that send and receive such
// streams, run the same way where they are installed.
#ifndef BENCH_CONTENDERS_H
#define BENCH_CONTENDERS_H

#include <functional>
#include <string>
#include <vector>

#include "Measure.h"
#include "Traffic.h"

struct Contender {
    std::string name;
    // The load is what it has to receive or to send; the seconds are how long it must be able to.
    std::function<Children(Load, double seconds)> start;
    // A process of ours: says on the board when it is ready, and what it hands to its host.
    bool ours = true;
};

// The routine, in a process of its own.
Contender makeOurs(const std::string& name, void (*routine)(Board&, Load),
                   Place place = Place::Measured);

inline constexpr const char* kPeers[] = {"multicat", "GStreamer", "ffmpeg"};
bool isInstalled(const std::string& peer);

// Those that are installed. One process per stream; of GStreamer, which can do that, one for all.
std::vector<Contender> peerReceivers();
std::vector<Contender> peerSenders();

#endif
