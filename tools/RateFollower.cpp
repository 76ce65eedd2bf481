#include "RateFollower.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "TransportStream.h"

namespace {

using Nanoseconds = std::chrono::nanoseconds;

// Long enough to hold the large and the small pictures of a stream in about equal parts.
constexpr uint64_t kWindowTicks = kPcrHz;
// What receivers have to put up with anyway: about the distance of two PCRs.
constexpr Nanoseconds kTolerance = std::chrono::milliseconds(40);
// A window that is nearer than that to the rate in force shows that the stream has kept its rate,
// which was not measured well enough.
constexpr double kSameRate = 0.02;

uint32_t whole(double bitrate_bps) {
    return static_cast<uint32_t>(std::llround(std::clamp(bitrate_bps, 1.0, double{UINT32_MAX})));
}

Nanoseconds timeOf(uint64_t bytes, double bitrate_bps) {
    return Nanoseconds(std::llround(static_cast<double>(bytes) * 8e9 / bitrate_bps));
}

}  // namespace

void RateFollower::add(const uint8_t* packet) {
    const uint64_t position = position_;
    position_ += packetSize_;
    const auto pcr = readPcr(packet);
    if (!pcr)
        return;
    const auto [found, isNew] = clocks_.try_emplace(pcr->pid);
    Clock& clock = found->second;
    // A clock that stands still measures nothing.
    const uint64_t step = isNew ? 0 : pcrStep(clock.lastPcr, *pcr).value_or(0);
    if (step > 0)
        measure(clock, step, position);
    clock = {pcr->ticks, position};
}

// Of several clocks the one is followed that is, until it falls silent.
void RateFollower::measure(const Clock& from, uint64_t step, uint64_t position) {
    if (from.lastPosition < measuredTo_)
        return;
    measuredTo_ = position;
    windowTicks_ += step;
    windowBytes_ += position - from.lastPosition;
    if (windowTicks_ >= kWindowTicks)
        closeWindow(position);
}

void RateFollower::closeWindow(uint64_t position) {
    const double measured_bps =
        static_cast<double>(windowBytes_ * 8) * double{kPcrHz} / static_cast<double>(windowTicks_);
    const Nanoseconds length = timeOf(position - point_.bytes, measured_bps);
    point_ = {position, point_.time + length};
    windowTicks_ = windowBytes_ = 0;

    const uint64_t bytes = point_.bytes - changed_.bytes;
    const Nanoseconds time = point_.time - changed_.time;
    if (bitrate_ && std::chrono::abs(time - timeOf(bytes, *bitrate_)) <= kTolerance)
        return;
    const bool same = bitrate_ && std::abs(measured_bps / *bitrate_ - 1.0) < kSameRate;
    bitrate_ = whole(same ? static_cast<double>(bytes) * 8e9 / static_cast<double>(time.count())
                          : measured_bps);
    changed_ = point_;
    told_ = false;
}

std::optional<uint32_t> RateFollower::change() {
    return std::exchange(told_, true) ? std::nullopt : bitrate_;
}
