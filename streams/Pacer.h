// Lets what comes by itself leave as it is, at its own pace or at a given one.
#ifndef STREAMS_PACER_H
#define STREAMS_PACER_H

#include <cstdint>
#include <optional>
#include <span>

#include "Shaper.h"
#include "TimedPackets.h"

namespace ts {

// This is for the live input of a relay, and for what a relay plays in place of it, which has to
// leave as if it were live; an OwnPace is for what is read ahead. Each datagram leaves at its first
// packet's own time, as TimedPackets has it: after the input's latency, and by this machine's clock
// however far the source's runs apart from it. The rate is that of the last seconds, or the given
// one.
class Pacer : public Shaper {
  public:
    struct Options {
        std::optional<uint32_t> rate_bps = std::nullopt;  // none: by the PCRs
        Time latency = std::chrono::milliseconds(200);    // of live input, to absorb its jitter
    };

    Pacer(size_t packetSize, InputKind kind, const Options& options);

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
    const InputKind kind_;
    TimedPackets times_;
    bool finished_ = false;
};

}  // namespace ts

#endif
