// Other programs that send and receive such streams, run the same way where they are installed.
#ifndef BENCH_PEERS_H
#define BENCH_PEERS_H

#include <string>
#include <vector>

#include "Measure.h"
#include "Traffic.h"

inline constexpr const char* kPeers[] = {"multicat", "GStreamer", "ffmpeg"};

bool isInstalled(const std::string& peer);

// One process per stream; of GStreamer, which can do that, one for all.
Children startReceivers(const std::string& peer, uint32_t channels);
Children startSenders(const std::string& peer, Load load, double seconds);

#endif
