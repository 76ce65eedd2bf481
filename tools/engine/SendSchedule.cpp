#include "engine/SendSchedule.h"

#include <algorithm>
#include <cmath>

namespace {

using namespace std::chrono_literals;
using Seconds = std::chrono::duration<double>;

// Early or late by less is not worth a change, and is more than a constant rate ever is.
constexpr Seconds kTolerance = 20ms;
// Later than that, the input did not come in time, and the schedule begins anew.
constexpr Seconds kLost = 1s;
// Faster or slower than the stream by more than that, to make up for lost time, would be felt.
constexpr double kMostHaste = 0.1;

Seconds timeOf(uint64_t bytes, double bitrate_bps) {
    return Seconds(static_cast<double>(bytes) * 8.0 / bitrate_bps);
}

SendSchedule::Clock::duration toClock(Seconds time) {
    return std::chrono::duration_cast<SendSchedule::Clock::duration>(time);
}

double rateOf(const PacedStream::Stretch& stretch) {
    const Seconds length = stretch.end.time - stretch.begin.time;
    return static_cast<double>(stretch.end.bytes - stretch.begin.bytes) * 8.0 / length.count();
}

}  // namespace

std::optional<uint32_t> SendSchedule::change(uint64_t sent, const PacedStream::Stretch& stretch,
                                             Clock::time_point now) {
    if (sent == 0 || stretch.end.bytes == settled_)
        return std::nullopt;
    settled_ = stretch.end.bytes;
    const double own_bps = rateOf(stretch);
    const uint64_t rest = stretch.end.bytes - sent;
    // Where the stream itself says that we should be at this moment.
    const Seconds here = Seconds(stretch.end.time) - timeOf(rest, own_bps);
    if (!origin_ || std::chrono::abs(now - *origin_ - here) > kLost)
        origin_ = now - toClock(here);
    const Seconds left = *origin_ + stretch.end.time - now;
    if (std::chrono::abs(timeOf(rest, bitrate_bps_) - left) <=
        kTolerance + timeOf(2 * datagramBytes_, own_bps))
        return std::nullopt;
    const double fastest = std::min(own_bps * (1.0 + kMostHaste), double{UINT32_MAX});
    const double slowest = std::min(own_bps * (1.0 - kMostHaste), fastest);
    const double wanted =
        left.count() > 0 ? static_cast<double>(rest) * 8.0 / left.count() : fastest;
    bitrate_bps_ =
        static_cast<uint32_t>(std::llround(std::max(1.0, std::clamp(wanted, slowest, fastest))));
    return bitrate_bps_;
}

// Behind the stretch, its rate goes on.
Seconds SendSchedule::lateness(uint64_t byte, const PacedStream::Stretch& stretch,
                               Clock::time_point now) {
    const Seconds here = stretch.begin.time + timeOf(byte - stretch.begin.bytes, rateOf(stretch));
    if (!origin_)
        origin_ = now - toClock(here);
    return now - *origin_ - here;
}
