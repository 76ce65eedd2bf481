// What a stream's packets and their times say about a constant rate.
#ifndef STREAMS_RATEMEASURES_H
#define STREAMS_RATEMEASURES_H

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "TimedPackets.h"

namespace ts {

// Whether the PCRs of a stream stand where they would stand at a constant rate, but for the noise
// that analysers and multiplexers have. Each PID is its own clock; at a splice it begins anew.
class ConstantCheck {
  public:
    // Packets are added in order, each of them, until settle().
    void add(const uint8_t* packet);

    size_t intervals() const { return points_.size(); }

    // Ends the measurement. None: the rate is not constant, or there are too few PCRs.
    std::optional<double> settle(size_t packetSize);

    // For the packets behind: whether the rate is kept.
    bool keeps(const uint8_t* packet);

  private:
    struct Line {
        uint64_t ticks = 0;  // since the clock began
        uint64_t packets = 0;
    };
    std::optional<PcrSteps::Step> next(const uint8_t* packet);
    bool fits(uint64_t ticks, uint64_t packets) const;

    PcrSteps steps_;
    std::map<uint16_t, Line> lines_;
    std::vector<Line> points_;
    Line longest_;
};

// While packets wait, the PCRs among them part. So that they are never further apart than 100 ms
// (ISO/IEC 13818-1, 2.7.2), packets with PCRs only are put between them: on average no more than
// one for kPacketsPerPcr others, or a slow stream would consist of clocks; and none while the PCRs
// are no further apart than in the source, but for kPcrTrifle.
inline constexpr Ticks kLongestPcrGap = kTicksPerSecond * 95 / 1000;
inline constexpr Ticks kPcrTrifle = kTicksPerSecond * 4 / 1000;
inline constexpr uint64_t kPacketsPerPcr = 8;
inline constexpr uint64_t kMostPcrCredit = 16 * kPacketsPerPcr;
inline constexpr size_t kMostPcrPids = 64;  // at a time; so many programmes are in no multiplex

// Shorter waits are not told apart.
inline constexpr Ticks kFinestDelay = kTicksPerSecond / 500;

// The least rate at which a stream passes through a smoothing buffer, together with the PCRs that
// are put in.
class LeastRate {
  public:
    explicit LeastRate(size_t packetSize) : packetBits_(packetSize * 8) {}

    // A packet that has to leave, and its own time, which never goes back.
    void add(const uint8_t* packet, Ticks time);
    void clear() { points_.clear(), clocks_.clear(); }
    bool empty() const { return points_.empty(); }
    // What is added next makes room by forgetting the older half.
    bool isFull() const { return points_.size() == kMostPoints; }

    // Such that no packet that was added waits longer than `delay`, or than kFinestDelay and itself
    // lasts; in bits per second.
    uint32_t find(Ticks delay) const;

    // The mean rate from the first packet to the given time.
    double mean(Ticks end) const;

  private:
    static constexpr size_t kMostPoints = 1 << 14;
    struct Point {
        Ticks time;
        uint32_t packets;
        uint64_t clocks;  // whose PCRs come first among them or soon, a bit each
    };
    struct Shown;
    uint64_t clockOf(const uint8_t* packet);
    bool passes(double rate_bps, Ticks delay) const;

    uint64_t packetBits_;
    std::vector<Point> points_;     // packets of a few milliseconds each
    std::vector<uint16_t> clocks_;  // PIDs with PCRs
};

// The same for a stream of any length, by its PCRs.
class RateScan {
  public:
    RateScan(size_t packetSize, Time delay)
        : delay_(delay.count() * 27 / 1000),
          times_(packetSize, InputKind::kFile, Time(0)),
          least_(packetSize) {}

    // Whole packets, in order. False: there are no PCRs, and nothing will be found.
    bool push(std::span<const uint8_t> packets);

    // In bits per second, for what was pushed; 0 where there were no PCRs.
    uint32_t find();

  private:
    void take();

    const Ticks delay_;
    TimedPackets times_;
    LeastRate least_;
    bool looked_ = false;  // since the last half was forgotten
    uint32_t found_bps_ = 0;
};

// The next number of two significant digits.
uint32_t roundUpRate(double rate_bps);

}  // namespace ts

#endif
