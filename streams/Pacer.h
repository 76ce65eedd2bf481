// Lets the packets of a stream leave as they are, at its own pace or at a given one.
#ifndef STREAMS_PACER_H
#define STREAMS_PACER_H

#include <cstdint>
#include <optional>
#include <span>

#include "Shaper.h"
#include "TimedPackets.h"

namespace ts {

// Each datagram leaves at its first packet's own time. The pace may vary; the rate is that of the
// last seconds, or the given one.
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
