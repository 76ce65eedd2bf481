#include "RateMeasures.h"

#include <bitstream/mpeg/ts.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <utility>

namespace ts {

namespace {

// 500 ns for the PCR at either end, and as much again for those who round.
constexpr double kPcrNoise = 54.0;
constexpr size_t kFewestIntervals = 3;

constexpr Ticks kShortestPoint = kFinestDelay / 8;
constexpr size_t kMostWithoutPcr = 65'536;  // packets, where no PCR comes

}  // namespace

// None as well where a clock begins, and a line with it.
std::optional<PcrSteps::Step> ConstantCheck::next(const uint8_t* packet) {
    const auto step = steps_.add(readPcr(packet));
    if (!step)
        return std::nullopt;
    Line& line = lines_[step->pid];
    line = step->ticks ? Line{line.ticks + *step->ticks, line.packets + step->packets} : Line{};
    return step->ticks ? step : std::nullopt;
}

void ConstantCheck::add(const uint8_t* packet) {
    const auto step = next(packet);
    if (!step)
        return;
    const Line& line = points_.emplace_back(lines_[step->pid]);
    if (line.ticks > longest_.ticks)
        longest_ = line;
}

// Whether that many packets take that time at the rate of the longest line.
bool ConstantCheck::fits(uint64_t ticks, uint64_t packets) const {
    const double time = static_cast<double>(ticks) - static_cast<double>(packets) *
                                                         static_cast<double>(longest_.ticks) /
                                                         static_cast<double>(longest_.packets);
    return std::abs(time) <= kPcrNoise;
}

std::optional<double> ConstantCheck::settle(size_t packetSize) {
    const bool constant = points_.size() >= kFewestIntervals && longest_.ticks > 0 &&
                          std::all_of(points_.begin(), points_.end(), [this](const Line& at) {
                              return fits(at.ticks, at.packets);
                          });
    points_ = {};
    if (!constant)
        return std::nullopt;
    return static_cast<double>(longest_.packets * packetSize * 8) * double{kTicksPerSecond} /
           static_cast<double>(longest_.ticks);
}

bool ConstantCheck::keeps(const uint8_t* packet) {
    const auto step = next(packet);
    return !step || fits(*step->ticks, step->packets);
}

uint64_t LeastRate::clockOf(const uint8_t* packet) {
    const auto pcr = readPcr(packet);
    if (!pcr)
        return 0;
    const auto found = std::find(clocks_.begin(), clocks_.end(), pcr->pid);
    const auto clock = static_cast<size_t>(found - clocks_.begin());
    if (clock == kMostPcrPids)
        return 0;
    if (found == clocks_.end())
        clocks_.push_back(pcr->pid);
    return uint64_t{1} << clock;
}

void LeastRate::add(const uint8_t* packet, Ticks time) {
    const uint64_t clock = clockOf(packet);
    if (!points_.empty() &&
        time - points_.back().time < (clock == 0 ? kFinestDelay : kShortestPoint)) {
        ++points_.back().packets;
        points_.back().clocks |= clock;
        return;
    }
    if (isFull())
        points_.erase(points_.begin(), points_.begin() + kMostPoints / 2);
    points_.push_back({time, 1, clock});
}

// When a clock's last PCRs have come to stand, at the rate that is tried.
struct LeastRate::Shown {
    // From then on, one is to be put in before the packets with this own time.
    double due(double own, double longest) const {
        return std::max(last + longest, inSource + own - inSourceOwn + double{kPcrTrifle});
    }
    double last = std::numeric_limits<double>::max();
    double inSource = 0.0;  // the source's
    double inSourceOwn = 0.0;
};

bool LeastRate::passes(double rate_bps, Ticks delay) const {
    std::array<Shown, kMostPcrPids> clocks{};
    const std::span shown(clocks.data(), clocks_.size());
    const double packetTime = static_cast<double>(packetBits_) * double{kTicksPerSecond} / rate_bps;
    const double longest = double{kLongestPcrGap} - packetTime;
    // Slots do not begin with the packets, nor do points.
    const double most = std::max(static_cast<double>(delay), double{kFinestDelay} + packetTime);
    double end = 0.0;
    uint64_t credit = kMostPcrCredit;  // for PCRs, in packets
    for (const Point& point : points_) {
        const auto own = static_cast<double>(point.time - points_.front().time);
        end = std::max(end, own);
        for (uint64_t left = point.packets; left > 0;) {
            double next = std::numeric_limits<double>::max();
            Shown* first = nullptr;
            for (Shown& clock : shown) {
                const double due = clock.due(own, longest);
                if (due < next && own - clock.inSourceOwn <= double{kClockSilence})
                    next = due, first = &clock;
            }
            if (next < end && credit >= kPacketsPerPcr) {
                first->last = end;
                end += packetTime;
                credit -= kPacketsPerPcr;
                continue;
            }
            for (size_t i = 0; i < shown.size() && left == point.packets; ++i)
                if ((point.clocks >> i & 1) != 0)
                    shown[i] = {end, end, own};
            const double packets = next < end ? 1.0 : std::ceil((next - end) / packetTime);
            const auto until = packets < static_cast<double>(left)
                                   ? std::max<uint64_t>(static_cast<uint64_t>(packets), 1)
                                   : left;
            end += packetTime * static_cast<double>(until);
            left -= until;
            credit = std::min(credit + until, kMostPcrCredit);
        }
        if (end > own + most)
            return false;
    }
    return true;
}

uint32_t LeastRate::find(Ticks delay) const {
    uint32_t low = 0;
    uint32_t high = UINT32_MAX;
    while (high - low > 1 + low / 4096) {
        const uint32_t middle = low + (high - low) / 2;
        (passes(middle, delay) ? high : low) = middle;
    }
    return high;
}

double LeastRate::mean(Ticks end) const {
    uint64_t packets = 0;
    for (const Point& point : points_)
        packets += point.packets;
    const Ticks length = points_.empty() ? 0 : end - points_.front().time;
    return length <= 0 ? 0.0
                       : static_cast<double>(packets * packetBits_) * double{kTicksPerSecond} /
                             static_cast<double>(length);
}

bool RateScan::push(std::span<const uint8_t> packets) {
    times_.push(packets, Time(0));
    take();
    return times_.untimed() <= kMostWithoutPcr;
}

void RateScan::take() {
    for (; !times_.empty(); times_.pop()) {
        if (ts_get_pid(times_.bytes()) == kNullPid)
            continue;
        if (least_.isFull() && !std::exchange(looked_, true))
            found_bps_ = std::max(found_bps_, least_.find(delay_));
        least_.add(times_.bytes(), times_.time());
        looked_ = looked_ && least_.isFull();
    }
}

uint32_t RateScan::find() {
    if (times_.rate())
        times_.finish();
    take();
    return least_.empty() ? 0 : std::max(found_bps_, least_.find(delay_));
}

uint32_t roundUpRate(double rate_bps) {
    double unit = 1.0;
    while (rate_bps / unit > 99.0)
        unit *= 10.0;
    return static_cast<uint32_t>(
        std::clamp(std::ceil(rate_bps / unit) * unit, 1.0, double{UINT32_MAX}));
}

}  // namespace ts
