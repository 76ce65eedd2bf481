#include "Pacer.h"

#include <algorithm>
#include <cmath>

namespace ts {

namespace {

// Of a file, where no PCR tells the pace.
constexpr size_t kMostUntimed = 65'536;

}  // namespace

Pacer::Pacer(size_t packetSize, InputKind kind, const Options& options)
    : packetSize_(packetSize),
      kind_(kind),
      times_(packetSize, kind, options.latency, options.rate_bps) {}

void Pacer::push(std::span<const uint8_t> packets, Time arrival) {
    times_.push(packets, arrival);
}

void Pacer::finish() {
    finished_ = true;
    if (kind_ == InputKind::kLive || times_.rate())
        times_.finish();
}

bool Pacer::needsInput(Time until) const {
    return !finished_ && times_.untimed() < kMostUntimed &&
           (!times_.started() || times_.wholeTo() <= times_.toTicks(until));
}

size_t Pacer::pull(std::span<uint8_t> datagrams, Time until) {
    const size_t datagramBytes = kPacketsPerDatagram * packetSize_;
    times_.settle(until);
    const Ticks end = times_.toTicks(until);
    size_t written = 0;
    while (times_.hasDatagram() && times_.time() <= end &&
           datagrams.size() - written >= datagramBytes) {
        times_.takeDatagram(datagrams.data() + written);
        written += datagramBytes;
    }
    if (!times_.hasDatagram() && times_.nextDue() <= end)
        times_.starve(times_.nextDue());
    return written;
}

std::optional<Time> Pacer::next() const {
    return times_.hasDatagram() && times_.started() ? std::optional(times_.toTime(times_.time()))
                                                    : std::nullopt;
}

std::optional<uint32_t> Pacer::rate() const {
    const auto rate = times_.rate();
    if (!rate)
        return std::nullopt;
    return static_cast<uint32_t>(std::clamp(std::round(*rate), 1.0, double{UINT32_MAX}));
}

ShaperStatus Pacer::status() const {
    ShaperStatus status;
    status.rateKnown = rate().has_value();
    status.rate_bps = rate().value_or(0);
    status.delay = times_.meanDelay();
    status.breaks = times_.cuts();
    status.untouched = true;
    return status;
}

}  // namespace ts
