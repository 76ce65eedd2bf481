#include "RateFollower.h"

#include <cmath>

namespace {

using Nanoseconds = std::chrono::nanoseconds;

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
}
