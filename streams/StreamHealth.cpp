#include "StreamHealth.h"

#include <algorithm>
#include <utility>

namespace ts {

namespace {

using namespace std::chrono_literals;

constexpr int kParts = 10;
constexpr Time kHealthLook = 100ms;
// In a longer one, nothing is missing but the stream.
constexpr Time kPause = 200ms;
// What is missing is told again every five seconds at least.
constexpr Time kClearAfter = 6s;
constexpr Check kLasting[] = {Check::kPat, Check::kPmt, Check::kPid};

}  // namespace

StreamHealth::StreamHealth(Time patience)
    : patience_(patience),
      alarms_({.raiseAfter = Time(0), .clearAfter = kClearAfter, .ignored = {}}),
      transport_({}, analyzer_, alarms_),
      analyzer_(&transport_) {
    faulty_.fill(Time::min() / 2);
}

void StreamHealth::push(std::span<const uint8_t> bytes, Time arrival) {
    if (arrival - arrival_ >= kPause)
        transport_.pause();
    const uint64_t wrong = analyzer_.splitter().syncByteErrors();
    analyzer_.feed(bytes, arrival);
    if (analyzer_.splitter().syncByteErrors() != wrong)
        transport_.checkSync(arrival);
    const uint64_t packets = analyzer_.splitter().packets();
    if (std::exchange(packets_, packets) != packets)
        arrival_ = arrival;
}

void StreamHealth::tick(Time now) {
    if (now - looked_ >= kHealthLook) {
        looked_ = now;
        if (now - arrival_ < kPause)
            transport_.tick(now);
        alarms_.tick(now);
    }
    if (packets_ == 0)
        return;
    if (now - arrival_ < patience_) {
        state_ = judge(now);
    } else if (std::exchange(state_, Health::kNone) != Health::kNone) {
        fault_ = Check::kNoSignal;
        transport_.pause();
        analyzer_.restart();
    }
}

Health StreamHealth::judge(Time now) {
    const Time part = patience_ / static_cast<int>(kFaultyParts);
    const Time begin = now - now % part;
    for (size_t i = 0; i < counts_.size(); ++i) {
        const uint64_t count = alarms_.count(kSingle[i]);
        if (std::exchange(counts_[i], count) == count)
            continue;
        damage_ = kSingle[i];
        if (faulty_.front() == begin)
            continue;
        std::rotate(faulty_.begin(), faulty_.end() - 1, faulty_.end());
        faulty_.front() = begin;
    }
    for (const Check check : kLasting)
        if (alarms_.isFailing(check) && analyzer_.tables().transportStreamId()) {
            fault_ = check;
            return Health::kIll;
        }
    if (faulty_.back() <= now - kParts * part)
        return Health::kWell;
    fault_ = damage_;
    return Health::kIll;
}

}  // namespace ts
