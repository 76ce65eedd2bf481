// The pace of a stream by its own clock, be its rate constant or not.
#ifndef STREAMS_RATEFOLLOWER_H
#define STREAMS_RATEFOLLOWER_H

#include <chrono>
#include <cstddef>
#include <cstdint>

#include "TransportStream.h"

// Measures over windows of the stream's own time, one after the other. What lies between
// the PCRs of two clocks (at a splice, or where they pass from one PID to another) is taken to flow
// at the rate of the rest of its window, so no jump of a clock makes a rate.
class RateFollower {
  public:
    // A second is long enough to hold the large and the small pictures of a stream in equal parts.
    explicit RateFollower(size_t packetSize,
                          std::chrono::milliseconds window = std::chrono::seconds(1))
        : intervals_(packetSize),
          lengthTicks_(static_cast<uint64_t>(window.count()) * (kPcrHz / 1000)) {}

    // Packets are added in order, each of them.
    void add(const uint8_t* packet);

    // Ends the window before its time, where the stream ends.
    void finish();

    // Where the last window ended: bytes since the first packet, and the time they take.
    struct Point {
        uint64_t bytes = 0;
        std::chrono::nanoseconds time{0};
    };
    const Point& point() const { return point_; }

  private:
    void closeWindow(uint64_t position);

    PcrIntervals intervals_;
    uint64_t lengthTicks_;
    uint64_t windowTicks_ = 0;
    uint64_t windowBytes_ = 0;  // those that took windowTicks_
    Point point_;
};

#endif
