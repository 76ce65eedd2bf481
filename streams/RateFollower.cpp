#include "RateFollower.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace {

using Nanoseconds = std::chrono::nanoseconds;

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
    const uint64_t position = intervals_.bytes();
    const auto interval = intervals_.add(packet);
    if (!interval)
        return;
    windowTicks_ += interval->ticks;
    windowBytes_ += interval->bytes;
    if (windowTicks_ >= lengthTicks_)
        closeWindow(position);
}

void RateFollower::finish() {
    if (windowTicks_ > 0)
        closeWindow(intervals_.bytes());
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
