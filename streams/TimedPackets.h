// The packets of a stream in their order, each with the time that the stream's clock gives it.
#ifndef STREAMS_TIMEDPACKETS_H
#define STREAMS_TIMEDPACKETS_H

#include <cstdint>
#include <deque>
#include <optional>
#include <utility>

#include "PacketStore.h"
#include "Shaper.h"
#include "TransportStream.h"

namespace ts {

// Of the 27 MHz of a PCR, since the first packet arrived.
using Ticks = int64_t;
inline constexpr Ticks kTicksPerSecond = kPcrHz;

// The clock of a PID without a PCR for so long does not count any more.
inline constexpr Ticks kClockSilence = kTicksPerSecond;

// Moments at which packets follow each other at a rate, exact for ever.
class SlotClock {
  public:
    SlotClock(size_t packetSize, uint32_t rate_bps);

    void begin(Ticks time) { time_ = time, fraction_ = 0; }
    void advance();
    Ticks time() const { return time_; }
    Ticks length() const { return whole_; }  // of a packet, rounded down

  private:
    uint64_t rate_;
    Ticks whole_;
    uint64_t rest_;  // in 1/rate of a tick
    Ticks time_ = 0;
    uint64_t fraction_ = 0;
};

// Each packet has its own time by the stream's PCRs: within an interval between two PCRs, packets
// are spread evenly. Of several PIDs with PCRs one is followed, until it falls silent. Where a
// clock ends and another begins, time goes on at the last rate.
//
// Of a file, the first packet has the time 0. Live input is due `latency` after it came, in the
// mean. Its clock is not this machine's, so the offset between them is steered: by a thirtieth of
// the deviation per second, at most 2 %. What steering cannot mend in time (the source has paused,
// its PCRs jump, it sends faster than its PCRs) begins a new offset at once, which is a cut.
//
// Without PCRs, or where each begins a new clock, live packets are due `latency` after each came,
// and those of a file follow each other at the rate that was assumed. Where a rate is given, all
// packets follow each other at that rate, whatever their PCRs. One thread uses an object.
class TimedPackets {
  public:
    TimedPackets(size_t packetSize, InputKind kind, Time latency,
                 std::optional<uint32_t> rate_bps = std::nullopt);

    // Whole packets.
    void push(std::span<const uint8_t> packets, Time arrival);

    // What has no time yet gets it at the last rate.
    void finish();

    // As long as no PCR tells: the rate at which a file's packets follow each other.
    void assumeRate(uint32_t rate_bps);

    // Times what has waited too long for a PCR, and steers; before packets are taken.
    void settle(Time time);

    bool empty() const { return timed_ == 0; }  // of those that have a time
    size_t size() const { return timed_; }
    size_t untimed() const { return packets_.size() - timed_; }
    uint8_t* bytes(size_t index = 0) { return bytes_.data() + index * packetSize_; }
    Ticks time(size_t index = 0) const { return packets_[index].time + offset_; }
    void pop();

    // The next seven, where there are as many or, at the end, any at all; null packets in place of
    // those that are missing.
    bool hasDatagram() const { return timed_ >= (finished_ ? 1 : kPacketsPerDatagram); }
    void takeDatagram(uint8_t* datagram);
    // When the first datagram is due that is not whole yet.
    Ticks wholeTo() const {
        const size_t whole = timed_ - timed_ % kPacketsPerDatagram;
        return whole == timed_ ? knownTo() : time(whole);
    }

    // Up to where the times of packets are known.
    Ticks knownTo() const { return next_ + offset_; }
    bool started() const { return hasOrigin_ && hasOffset_; }
    uint64_t cuts() const { return cuts_; }

    Ticks toTicks(Time time) const;
    Time toTime(Ticks ticks) const;

    // Input is missing at that time. Nothing of a file is left out, so all that is pushed behind is
    // due later, by as much as it comes too late.
    void starve(Ticks due) { starved_ = due; }
    // When the next packet would be due.
    Ticks nextDue() const { return empty() ? knownTo() : time(); }

    // From now on, everything is due that much later, which live input becomes accustomed to.
    void putOff(Ticks ticks);

    // By the PCRs of the last seconds or, without them, by the arrivals: in bits per second.
    std::optional<double> rate() const;

    Time meanDelay() const { return toDuration(static_cast<Ticks>(meanDelay_)); }

    static Time toDuration(Ticks ticks);

  private:
    struct Packet {
        Ticks arrival;
        Ticks time;  // of the stream; of the first timed_ packets only
    };

    void add(const uint8_t* packet, Ticks now);
    bool follows(const Pcr& pcr, Ticks now);
    void follow(const Pcr& pcr, Ticks now);
    void measureArrival(Ticks now);
    void spread(Ticks end);
    void spreadByArrival();
    Ticks guess(size_t packets) const;
    bool isClocked(Ticks now) const;
    void steer();
    void noteRate(double packets, double seconds);

    const size_t packetSize_;
    const InputKind kind_;
    Ticks latency_;
    std::optional<SlotClock> given_;
    std::deque<Packet> packets_;
    PacketStore bytes_;  // of these
    size_t timed_ = 0;
    bool everTimed_ = false;
    Ticks next_ = 0;  // stream time of the first packet that has none yet

    bool hasOrigin_ = false;
    Time origin_{0};
    Time lag_{0};  // by which the output has waited for a file
    std::optional<Ticks> starved_;
    bool finished_ = false;
    bool hasOffset_;
    Ticks offset_ = 0;  // between the stream's time and ours
    uint64_t cuts_ = 0;

    std::optional<Pcr> clock_;      // the last PCR of the PID that is followed
    std::optional<Pcr> candidate_;  // the first of another PID since
    Ticks clockSeen_ = 0;           // when it came
    Ticks stepSeen_ = 0;            // when one came last that goes on from another, or a first one
    Ticks clockTime_ = 0;           // which stream time that was
    uint64_t sinceClock_ = 0;       // packets, its own included
    Ticks rateTicks_ = 0;           // in which so many packets flow
    uint64_t ratePackets_ = 0;      // 0: not known yet

    // What the rate is told by: a few seconds, older ones fade.
    double shownPackets_ = 0.0;
    double shownSeconds_ = 0.0;
    Ticks windowBegin_ = 0;
    uint64_t windowPackets_ = 0;

    double meanDelay_ = 0.0;
    double steering_ = 0.0;                               // less than a tick
    Ticks steered_ = 0;                                   // when last
    std::optional<std::pair<Ticks, Ticks>> observation_;  // stream time, and when it came
};

}  // namespace ts

#endif
