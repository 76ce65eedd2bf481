// Makes a stream constant-rate: null packets put in, PCRs restamped.
#ifndef STREAMS_CONSTANTRATE_H
#define STREAMS_CONSTANTRATE_H

#include <cstdint>
#include <unordered_map>
#include <vector>

#include "RateMeasures.h"
#include "Shaper.h"
#include "TimedPackets.h"

namespace ts {

// The output has exactly the given rate. Packet i leaves at max(its own time, the end of packet
// i - 1); null packets fill the gaps, and those of the input are dropped. A packet's own time is
// that of TimedPackets. Each PCR becomes its departure, in its own clock, less the constant delay:
// a packet that waits no longer than the delay comes no later against its clock than in the source.
//
// Without a rate given, it is the least that the first seconds allow, rounded up to two significant
// digits; RateScan can tell what the rest of a file needs. Where the rate turns out to be too low,
// the packets come late, at the full rate, and the clock is kept. What is more than two seconds
// late is dropped, until nothing is late any more.
//
// The clocks: all PIDs with PCRs are restamped, each with an offset of its own to the time of the
// output. The offset is constant, and so the PCRs are exact to a tick, until the clock jumps in the
// source, or has run apart from the time by more than 20 ms (the clocks of two programmes, or that
// of a live source and ours), which is then followed slowly. Packets of 204 bytes have their parity
// computed anew where the packet was changed.
//
// PCRs are put in where those of the source would part too far: instead of null packets as DVB
// wants it (every 40 ms), between waiting packets as it has to be (every 100 ms).
//
// A stream that has a constant rate already (that which is given, or any where none is given) goes
// out byte for byte, at its own time. Once it varies, it is shaped from there on; the fall of its
// PCRs by the delay is announced as a discontinuity.
//
// Of a file, the output waits when input is missing, and goes on from there. Of live input, null
// packets go on; and where its PCRs have stood still meanwhile, that is announced, too.
class ConstantRate : public Shaper {
  public:
    struct Options {
        std::optional<uint32_t> rate_bps = std::nullopt;  // none: measured by the PCRs
        uint32_t least_bps = 0;                           // what is measured becomes no less
        Time delay = std::chrono::milliseconds(500);      // the smoothing buffer, at most a second
        Time latency = std::chrono::milliseconds(200);    // of live input, which absorbs its jitter
    };

    ConstantRate(size_t packetSize, InputKind kind, const Options& options);

    void push(std::span<const uint8_t> packets, Time arrival) override;
    void finish() override;
    // Also false where the rate cannot be known: no PCRs came, and none was given.
    bool needsInput(Time until) const override;
    size_t pull(std::span<uint8_t> datagrams, Time until) override;
    std::optional<Time> next() const override;
    std::optional<uint32_t> rate() const override;
    ShaperStatus status() const override;

  private:
    struct Clock {
        uint64_t lastPcr = 0;
        uint64_t offset = 0;   // from the output's time to the PCR
        Ticks lastTime = 0;    // of the output
        Ticks meanError = 0;   // of the offset
        int64_t steering = 0;  // less than a tick, in 2^16ths
        uint64_t cuts = 0;     // when the offset was set
        uint16_t pid = 0;
        uint8_t counter = 0;  // of the packet of its PID that left last
        bool listed = false;
        Ticks lastOwn = 0;  // the own time of the PCR that left at lastTime
        Ticks shown = 0;    // when last, also by a packet that was put in
    };

    bool measured() const;
    void decide(Time now);
    void beginShaping();
    bool canFill() const;
    bool isOver() const { return finished_ && times_.empty(); }
    size_t pullUntouched(uint8_t* datagram, Ticks until);
    size_t pullShaped(uint8_t* datagram, Ticks until);
    bool takePacket(uint8_t* slot);
    bool putPcr(uint8_t* slot, bool due);
    Clock* clockToShow(bool due);
    void list(Clock& clock);
    void skipNulls();
    void noteWait(Ticks own, Ticks wait);
    void dropLate();
    void publishNeed();
    void stamp(uint8_t* packet, Ticks own);
    void restamp(uint8_t* packet, const Pcr& pcr, Clock& clock, bool isNew, Ticks own);
    void steer(Clock& clock) const;

    const size_t packetSize_;
    const InputKind kind_;
    const Options options_;
    const Ticks delay_;
    TimedPackets times_;
    ConstantCheck check_;
    bool finished_ = false;
    bool failed_ = false;  // no rate can be known
    std::optional<uint32_t> rate_;
    bool untouched_ = false;

    std::optional<SlotClock> slot_;  // where the next packet goes, once something is shaped
    std::unordered_map<uint16_t, Clock> clocks_;
    std::vector<Clock*> listed_;        // of these, those for which PCRs are put in
    uint64_t credit_ = kMostPcrCredit;  // for PCRs between packets, in packets
    uint64_t ownCuts_ = 0;              // jumps of PCRs that the source does not have

    LeastRate busy_;  // since nothing waited last
    bool late_ = false;
    bool wasLate_ = false;  // which is still to be published
    Ticks lateSince_ = 0;
    Ticks publishedAt_ = 0;
    Ticks meanWait_ = 0;
    uint32_t needed_bps_ = 0;
    uint64_t added_ = 0;
    uint64_t dropped_ = 0;
};

}  // namespace ts

#endif
