// Whole packets out of a recorded stream, and what lies between them.
#ifndef STREAMS_PACKETSIEVE_H
#define STREAMS_PACKETSIEVE_H

#include <cstdint>
#include <span>

#include "TransportStream.h"

// Finds the packets where they lie, in the caller's buffer. What is not a packet is skipped: bytes
// of another kind, the padding of RTP, and its headers where they were delivered with the packets.
// Packets are found behind such headers however few of them a datagram carries.
class PacketSieve {
  public:
    struct Run {
        size_t skip;    // bytes to skip
        size_t length;  // of the whole packets behind them
    };
    // Both are 0 when more data is needed: the caller gives the rest again, with more behind it.
    // When the stream has `ended`, nothing is left to wait for.
    Run next(std::span<const uint8_t> data, bool ended);

    size_t packetSize() const { return packetSize_; }  // of the last ones; 0 = there were none
    uint64_t packets() const { return packets_; }
    uint64_t continuityErrors() const { return continuity_.errors(); }
    uint64_t skippedBytes() const { return skippedBytes_; }
    uint64_t gaps() const { return gaps_; }              // places at which bytes were skipped
    uint64_t syncLosses() const { return syncLosses_; }  // gaps that are not at the beginning

  private:
    bool synchronise(std::span<const uint8_t> data, bool ended, bool& needsMore);
    size_t find(std::span<const uint8_t> data, bool ended);
    void countSkipped(size_t bytes);

    ContinuityCounter continuity_;
    size_t packetSize_ = 0;
    bool synchronised_ = false;
    bool inGap_ = false;
    uint64_t packets_ = 0;
    uint64_t skippedBytes_ = 0;
    uint64_t gaps_ = 0;
    uint64_t syncLosses_ = 0;
};

#endif
