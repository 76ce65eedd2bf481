#include "MediaDelivery.h"

#include <algorithm>
#include <utility>

namespace ts {

namespace {

constexpr size_t kMostWaiting = 4096;  // more than PCRs 100 ms apart leave at 400 Mbit/s
constexpr Time kClockPatience = std::chrono::seconds(1);
// A PCR that is further ahead of the one before than it came behind it has jumped.
constexpr Time kMostBetweenPcrs = std::chrono::milliseconds(100);
constexpr Time kSecond = std::chrono::seconds(1);

}  // namespace

void MediaDelivery::closeRange() {
    if (least_ns_)
        range_ns_ = std::max(range_ns_.value_or(0), most_ns_ - *least_ns_);
    least_ns_.reset();
}

void MediaDelivery::restart() {
    closeRange();
    last_.reset();
    waiting_.clear();
}

void MediaDelivery::clock(const Pcr& pcr, uint64_t position, Time arrival) {
    if (last_ && pcr.pid != last_->pid) {
        if (arrival - heard_ < kClockPatience)
            return;
        restart();
    }
    const Time passed = arrival - std::exchange(heard_, arrival);
    const auto ticks = last_ ? pcrStep(last_->ticks, pcr) : std::nullopt;
    const Time step(static_cast<int64_t>(ticks.value_or(0) * 1000 / 27));
    if (step == Time(0) || step > passed + kMostBetweenPcrs || position <= position_) {
        restart();
        media_ns_ = 0;
    } else {
        empty(position, *ticks);
    }
    last_ = pcr;
    position_ = position;
}

// What has come before this PCR has its time now.
void MediaDelivery::empty(uint64_t position, uint64_t ticks) {
    const auto length_ns = static_cast<double>(ticks) * 1e9 / static_cast<double>(kPcrHz);
    const double perByte_ns = length_ns / static_cast<double>(position - position_);
    const auto timeOf = [&](uint64_t byte) {
        const auto off = static_cast<double>(static_cast<int64_t>(byte - position_));
        return media_ns_ + static_cast<int64_t>(off * perByte_ns);
    };
    for (; !waiting_.empty() && waiting_.front().end <= position; waiting_.pop_front()) {
        const Arrival& arrived = waiting_.front();
        const int64_t before = timeOf(arrived.begin) - arrived.time_ns;
        const int64_t behind = timeOf(arrived.end) - arrived.time_ns;
        most_ns_ = least_ns_ ? std::max(most_ns_, behind) : behind;
        least_ns_ = std::min(least_ns_.value_or(before), before);
    }
    media_ns_ += static_cast<int64_t>(length_ns);
}

void MediaDelivery::datagram(uint64_t begin, uint64_t end, Time arrival) {
    if (!last_ || begin == end)
        return;
    if (waiting_.size() == kMostWaiting)
        restart();
    else
        waiting_.push_back({begin, end, arrival.count()});
}

bool MediaDelivery::tick(Time now) {
    if (!second_)
        second_ = now;
    const Time passed = now - *second_;
    if (passed < kSecond)
        return false;
    closeRange();
    report_.delayFactor_ms.reset();
    if (range_ns_) {
        report_.delayFactor_ms = static_cast<double>(*range_ns_) / 1e6;
        report_.largestDelayFactor_ms =
            std::max(report_.largestDelayFactor_ms, *report_.delayFactor_ms);
    }
    report_.lossRate =
        static_cast<double>(secondLost_) / std::chrono::duration<double>(passed).count();
    report_.largestLossRate = std::max(report_.largestLossRate, report_.lossRate);
    report_.lost += secondLost_;
    range_ns_.reset();
    secondLost_ = 0;
    second_ = now;
    return true;
}

}  // namespace ts
