// Lets the packets of a stream leave as they are, at its own pace or at a given one.
#ifndef STREAMS_PACER_H
#define STREAMS_PACER_H

#include <cstdint>
#include <deque>
#include <optional>
#include <span>

#include "RateMeasures.h"
#include "Shaper.h"
#include "TimedPackets.h"

namespace ts {

// At the stream's own pace, which may vary: each datagram leaves at its first packet's own time.
// The rate is that of the last seconds.
class Pacer : public Shaper {
  public:
    struct Options {
        Time latency = std::chrono::milliseconds(200);  // of live input, which absorbs its jitter
    };

    Pacer(size_t packetSize, InputKind kind, const Options& options)
        : packetSize_(packetSize), times_(packetSize, kind, options.latency) {}

    void push(std::span<const uint8_t> packets, Time arrival) override;
    void finish() override;
    // Also false where nothing tells the pace: a file has no PCRs.
    bool needsInput(Time until) const override;
    size_t pull(std::span<uint8_t> datagrams, Time until) override;
    std::optional<Time> next() const override;
    std::optional<uint32_t> rate() const override;
    ShaperStatus status() const override;

  private:
    const size_t packetSize_;
    TimedPackets times_;
    bool finished_ = false;
};

// At the given rate, whatever the stream's own is. Of live input that comes faster, two seconds are
// kept, and the oldest packets are dropped.
class FixedRate : public Shaper {
  public:
    struct Options {
        uint32_t rate_bps = 0;
        Time latency = std::chrono::milliseconds(200);  // of live input, which absorbs its jitter
    };

    FixedRate(size_t packetSize, InputKind kind, const Options& options);

    void push(std::span<const uint8_t> packets, Time arrival) override;
    void finish() override { finished_ = true; }
    bool needsInput(Time until) const override;
    size_t pull(std::span<uint8_t> datagrams, Time until) override;
    std::optional<Time> next() const override;
    std::optional<uint32_t> rate() const override { return rate_bps_; }
    ShaperStatus status() const override;

  private:
    Time due() const { return *origin_ + TimedPackets::toDuration(slot_.time()); }
    bool hasDatagram() const { return bytes_.size() >= (finished_ ? 1 : datagramBytes_); }

    const size_t packetSize_;
    const size_t datagramBytes_;
    const InputKind kind_;
    const uint32_t rate_bps_;
    const Time latency_;
    std::deque<uint8_t> bytes_;
    SlotClock slot_;
    std::optional<Time> origin_;  // of the slots
    bool starved_ = false;
    bool finished_ = false;
    uint64_t dropped_ = 0;
};

}  // namespace ts

#endif
