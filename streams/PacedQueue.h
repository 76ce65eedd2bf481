// Lets the packets of a live stream go at the stream's own pace, a fixed time after they came.
#ifndef STREAMS_PACEDQUEUE_H
#define STREAMS_PACEDQUEUE_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <span>
#include <utility>
#include <vector>

#include "TransportStream.h"

// Each packet is due at its time by the stream's PCRs plus an offset: within an interval between
// two PCRs, packets are spread evenly. A stream that has no PCRs (any more) flows at the rate at
// which it arrives, or at the rate that was given.
//
// The stream's clock is not this machine's. The offset is therefore steered, so that the mean delay
// between arrival and departure stays at kDelay: by a thirtieth of the deviation per second, at
// most kSteering. A source that is 100 ppm fast or slow shifts the delay by 3 ms, and no such
// source drains the queue or fills it, however long it runs; the limit is reached only after a
// hold-up of most of a second. What steering cannot mend in time (the source has paused, its PCRs
// jump, it sends faster than its PCRs) begins a new offset, which brings the delay back to kDelay
// at once; no packet is put off by more than kMostDelay.
//
// Times are seconds since any fixed moment, and never go backwards. One thread uses it.
class PacedQueue {
  public:
    static constexpr double kDelay = 0.200;  // PCRs come every 100 ms, and networks hold up
    static constexpr double kMostDelay = 1.000;
    static constexpr double kSteering = 0.020;

    explicit PacedQueue(std::optional<uint32_t> bitrate_bps = std::nullopt)
        : given_bps_(bitrate_bps) {}

    // Packets are added in order, each of them; a queue holds packets of one size.
    void add(const uint8_t* packet, size_t size, double now);

    // What is due of seven packets, valid until the next call; empty: nothing is.
    std::span<const uint8_t> takeDatagram(double now);

    // Seven packets of what is left, due or not, null packets in place of those that are missing;
    // empty: nothing is left.
    std::span<const uint8_t> takeRest();

    // The rate at which the packets flow, in bits per second, all bytes of them; none: not known
    // yet.
    std::optional<uint32_t> bitrate() const;

    // The mean time between arrival and departure of late, and how often a new offset began.
    double delay() const { return meanDelay_; }
    uint64_t offsets() const { return offsets_; }

  private:
    struct Packet {
        std::array<uint8_t, kPacketWithParityBytes> bytes;
        double arrival;
        double time;  // of the stream; of the first timed_ packets only
    };

    void follow(const Pcr& pcr, double now);
    void measureArrival(double now);
    void spread(double end);
    void timeOverdue(double now);
    void steer();
    bool isClocked(double now) const;
    size_t untimed() const { return packets_.size() - timed_; }
    std::span<const uint8_t> take(size_t count);

    std::optional<uint32_t> given_bps_;
    size_t packetSize_ = kPacketBytes;
    std::deque<Packet> packets_;
    std::vector<uint8_t> datagram_;
    size_t timed_ = 0;
    bool everTimed_ = false;
    double next_ = 0.0;              // stream time of the first packet that has none yet
    double secondsPerPacket_ = 0.0;  // 0: not known yet

    std::optional<Pcr> clock_;  // the last PCR of the PID that is followed
    double clockSeen_ = 0.0;    // when it came
    double clockTime_ = 0.0;    // which stream time that was
    size_t sinceClock_ = 0;     // packets, its own included

    // What the rate is told by: a few seconds, older ones fade.
    double ratePackets_ = 0.0;
    double rateSeconds_ = 0.0;

    double lastArrival_ = 0.0;
    double windowBegin_ = 0.0;  // of the measurement by arrival
    size_t windowPackets_ = 0;
    uint32_t windows_ = 0;

    std::optional<double> offset_;
    double meanDelay_ = kDelay;
    double steered_ = 0.0;                                  // when last
    std::optional<std::pair<double, double>> observation_;  // stream time, and when it came
    uint64_t offsets_ = 0;
};

#endif
