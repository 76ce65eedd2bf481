// Joins streams where one takes the place of another.
#ifndef STREAMS_SPLICER_H
#define STREAMS_SPLICER_H

#include <bitset>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "TransportStream.h"

namespace ts {

// Announces, behind a cut, that counters and clocks start anew (ISO/IEC 13818-1, 2.4.3.5), so that
// decoders neither take the jump for a loss nor wait for the old clock. The discontinuity indicator
// is set in the first packet of each PID that came before the cut, too; of a PID with PCRs in all
// packets that can hold it, up to the first PCR, or for a second where the new stream has its PCRs
// on other PIDs. Where a first packet has no adaptation field with flags, a packet with nothing but
// that goes in front of it.
class Splicer {
  public:
    // What comes next does not continue what came before.
    void cut();

    // Whole packets of one size, 188 or 204, with what is announced. The result is valid until the
    // next call, as long as `packets` are.
    std::span<const uint8_t> join(std::span<const uint8_t> packets, size_t packetSize);

  private:
    using Pids = std::bitset<kNullPid + 1>;

    void noteClock(const Pcr& pcr);
    bool isAnnounced(const uint8_t* packet, bool& needsPacket);
    void append(const uint8_t* packet, size_t packetSize, bool needsPacket);

    Pids before_;                    // came before the last cut
    Pids come_;                      // since then
    Pids clocks_;                    // have had a PCR
    Pids clocked_;                   // since the last cut
    std::optional<Pcr> firstClock_;  // since then
    std::vector<uint8_t> joined_;
};

}  // namespace ts

#endif
