// The part of a stream between two moments of its own time.
#ifndef STREAMS_EXCERPT_H
#define STREAMS_EXCERPT_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <span>

#include "TransportStream.h"

// Times are those of the stream's PCRs, or of the bitrate while it has none.
class Excerpt {
  public:
    Excerpt(size_t packetSize, std::optional<uint32_t> bitrate_bps, std::chrono::nanoseconds start,
            std::optional<std::chrono::nanoseconds> duration);

    struct Part {
        size_t skipped;  // bytes in front of what is kept
        size_t kept;
    };
    // Packets are added in order. What follows the kept ones, once over() is true, need not be.
    Part add(std::span<const uint8_t> packets);

    bool begun() const { return begun_; }
    bool over() const { return over_; }

    // While it has not begun: how far the stream has come, and whether it has a time at all.
    std::chrono::nanoseconds passed() const { return passed_; }
    bool timeIsKnown() const { return time_.isKnown(); }

  private:
    const size_t packetSize_;
    const std::optional<uint32_t> bitrate_bps_;
    const std::chrono::nanoseconds start_;
    const std::optional<std::chrono::nanoseconds> duration_;
    StreamTime time_;
    std::chrono::nanoseconds passed_{0};
    bool begun_;
    bool over_ = false;
};

#endif
