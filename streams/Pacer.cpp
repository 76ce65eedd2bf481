#include "Pacer.h"

#include <algorithm>
#include <cmath>

namespace ts {

namespace {

// Of a file, where no PCR tells the pace.
constexpr size_t kMostUntimed = 65'536;
constexpr uint64_t kMostSeconds = 2;

}  // namespace

void Pacer::push(std::span<const uint8_t> packets, Time arrival) {
    for (; packets.size() >= packetSize_; packets = packets.subspan(packetSize_))
        times_.push(packets.data(), arrival);
}

void Pacer::finish() {
    finished_ = true;
    if (times_.rate())
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
    status.untouched = true;
    return status;
}

FixedRate::FixedRate(size_t packetSize, InputKind kind, const Options& options)
    : packetSize_(packetSize),
      datagramBytes_(kPacketsPerDatagram * packetSize),
      kind_(kind),
      rate_bps_(options.rate_bps),
      latency_(kind == InputKind::kFile ? Time(0) : options.latency),
      slot_(datagramBytes_, options.rate_bps) {}

void FixedRate::push(std::span<const uint8_t> packets, Time arrival) {
    // Time begins anew with what has come too late.
    if (!origin_ || (std::exchange(starved_, false) && due() < arrival)) {
        origin_ = arrival + latency_;
        slot_.begin(0);
    }
    bytes_.insert(bytes_.end(), packets.begin(), packets.end());
    const size_t most = std::max<size_t>(rate_bps_ / 8 * kMostSeconds, 2 * datagramBytes_);
    if (kind_ == InputKind::kFile || bytes_.size() <= most)
        return;
    const size_t count = (bytes_.size() - most + packetSize_ - 1) / packetSize_;
    bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(count * packetSize_));
    dropped_ += count;
}

bool FixedRate::needsInput(Time until) const {
    if (finished_)
        return false;
    const auto ahead = until - (origin_ ? due() : until);
    const auto most = static_cast<double>(rate_bps_) / 8e9 * static_cast<double>(ahead.count());
    return static_cast<double>(bytes_.size()) < most + static_cast<double>(datagramBytes_);
}

size_t FixedRate::pull(std::span<uint8_t> datagrams, Time until) {
    size_t written = 0;
    for (; hasDatagram() && due() <= until && datagrams.size() - written >= datagramBytes_;
         written += datagramBytes_) {
        const size_t count = std::min(bytes_.size(), datagramBytes_);
        const auto end = bytes_.begin() + static_cast<std::ptrdiff_t>(count);
        std::copy(bytes_.begin(), end, datagrams.begin() + static_cast<std::ptrdiff_t>(written));
        bytes_.erase(bytes_.begin(), end);
        for (size_t at = count; at < datagramBytes_; at += packetSize_)
            writeNullPacket(datagrams.data() + written + at, packetSize_);
        slot_.advance();
    }
    starved_ = origin_ && !hasDatagram() && due() <= until;
    return written;
}

std::optional<Time> FixedRate::next() const {
    return hasDatagram() ? std::optional(due()) : std::nullopt;
}

ShaperStatus FixedRate::status() const {
    ShaperStatus status;
    status.rateKnown = true;
    status.rate_bps = rate_bps_;
    status.dropped = dropped_;
    status.untouched = true;
    return status;
}

}  // namespace ts
