#include "TimedPackets.h"

#include <algorithm>
#include <cmath>

namespace ts {

namespace {

// What a file has between two PCRs at most, where they are not to be waited for any longer.
constexpr size_t kMostUntimed = 16'384;
// PCRs come every 100 ms at least; with laxer ones, live packets behind the last are due before the
// next one has come.
constexpr Ticks kPcrPatience = kTicksPerSecond * 150 / 1000;
constexpr Ticks kRateWindow = kTicksPerSecond / 2;
constexpr double kRateMemory_s = 4.0;

constexpr Ticks kMostEarly = kTicksPerSecond;
constexpr double kMeanTime = 2.0 * kTicksPerSecond;  // longer than the jitter of most networks
constexpr double kSteerTime = 30.0 * kTicksPerSecond;
constexpr double kMostSteering = 0.02;

// whole * part / parts, rounded down, without an overflow on the way.
Ticks share(Ticks whole, uint64_t part, uint64_t parts) {
    const auto divisor = static_cast<Ticks>(parts);
    const auto factor = static_cast<Ticks>(part);
    return whole / divisor * factor + whole % divisor * factor / divisor;
}

}  // namespace

SlotClock::SlotClock(size_t packetSize, uint32_t rate_bps)
    : rate_(rate_bps),
      whole_(static_cast<Ticks>(packetSize * 8 * kPcrHz / rate_bps)),
      rest_(packetSize * 8 * kPcrHz % rate_bps) {}

void SlotClock::advance() {
    time_ += whole_;
    fraction_ += rest_;
    if (fraction_ >= rate_) {
        fraction_ -= rate_;
        ++time_;
    }
}

TimedPackets::TimedPackets(size_t packetSize, InputKind kind, Time latency,
                           std::optional<uint32_t> rate_bps)
    : packetSize_(packetSize),
      kind_(kind),
      latency_(latency.count() * 27 / 1000),
      hasOffset_(kind == InputKind::kFile) {
    if (!rate_bps)
        return;
    given_.emplace(packetSize, *rate_bps);
    given_->begin(0);
    assumeRate(*rate_bps);
    noteRate(static_cast<double>(*rate_bps), static_cast<double>(packetSize * 8));
}

Ticks TimedPackets::toTicks(Time time) const {
    const int64_t ns = (time - origin_ - lag_).count();
    return ns / 1000 * 27 + ns % 1000 * 27 / 1000;
}

Time TimedPackets::toDuration(Ticks ticks) {
    return Time(ticks / 27 * 1000 + ticks % 27 * 1000 / 27);
}

Time TimedPackets::toTime(Ticks ticks) const {
    return origin_ + lag_ + toDuration(ticks);
}

void TimedPackets::push(std::span<const uint8_t> packets, Time arrival) {
    packets = packets.first(packets.size() / packetSize_ * packetSize_);
    if (packets.empty())
        return;
    if (!std::exchange(hasOrigin_, true))
        origin_ = arrival;
    if (starved_ && kind_ == InputKind::kFile)
        lag_ += std::max(arrival - toTime(*starved_), Time(0));
    starved_.reset();
    const Ticks now = toTicks(arrival);
    bytes_.put(packets);
    for (; packets.size() >= packetSize_; packets = packets.subspan(packetSize_))
        add(packets.data(), now);
}

void TimedPackets::add(const uint8_t* packet, Ticks now) {
    const auto pcr = given_ ? std::nullopt : readPcr(packet);
    if (pcr)
        follow(*pcr, now);
    if (!given_ && kind_ == InputKind::kLive && !isClocked(now))
        measureArrival(now);
    packets_.push_back({now, 0});
    ++sinceClock_;
    if (given_) {
        given_->advance();
        spread(given_->time());
        observation_ = {next_, now};
    }
    if (kind_ == InputKind::kFile && untimed() > kMostUntimed && ratePackets_ != 0)
        spread(next_ + guess(untimed()));
}

void TimedPackets::pop() {
    packets_.pop_front();
    bytes_.drop(packetSize_);
    --timed_;
}

void TimedPackets::takeDatagram(uint8_t* datagram) {
    const size_t taken = std::min(timed_, kPacketsPerDatagram);
    std::copy_n(bytes_.data(), taken * packetSize_, datagram);
    for (size_t i = 0; i < kPacketsPerDatagram; ++i) {
        if (i < taken)
            pop();
        else
            writeNullPacket(datagram + i * packetSize_, packetSize_);
    }
}

void TimedPackets::finish() {
    finished_ = true;
    if (untimed() > 0)
        spread(next_ + guess(untimed()));
    hasOffset_ = true;
}

void TimedPackets::assumeRate(uint32_t rate_bps) {
    if (ratePackets_ != 0)
        return;
    ratePackets_ = rate_bps;
    rateTicks_ = static_cast<Ticks>(packetSize_ * 8) * kTicksPerSecond;
}

void TimedPackets::putOff(Ticks ticks) {
    offset_ += ticks;
    if (kind_ == InputKind::kFile)
        return;
    latency_ += ticks;
    meanDelay_ += static_cast<double>(ticks);
}

Ticks TimedPackets::guess(size_t packets) const {
    return ratePackets_ == 0 ? 0 : share(rateTicks_, packets, ratePackets_);
}

// A clock that is new with each of its PCRs is none.
bool TimedPackets::isClocked(Ticks now) const {
    return clock_ && now - stepSeen_ <= kClockSilence;
}

// Whether the PCR's PID is the one to follow, by now or still.
bool TimedPackets::follows(const Pcr& pcr, Ticks now) {
    if (!clock_ || clock_->pid == pcr.pid)
        return true;
    if (!candidate_)
        candidate_ = pcr;
    if (candidate_->pid != pcr.pid)
        return kind_ == InputKind::kLive && !isClocked(now);
    const auto silence = (pcr.ticks + kPcrModulus - candidate_->ticks) % kPcrModulus;
    return silence > kClockSilence;
}

// The packet with the PCR is about to be added.
void TimedPackets::follow(const Pcr& pcr, Ticks now) {
    if (!follows(pcr, now))
        return;
    const auto step = clock_ && clock_->pid == pcr.pid ? pcrStep(clock_->ticks, pcr) : std::nullopt;
    // A clock that stands still measures nothing, and is not followed for long.
    if (step && *step == 0)
        return;
    if (step) {
        rateTicks_ = static_cast<Ticks>(*step);
        ratePackets_ = sinceClock_;
        noteRate(static_cast<double>(sinceClock_),
                 static_cast<double>(*step) / double{kTicksPerSecond});
        clockTime_ += rateTicks_;
        // What came before the first PCR of all flows as what follows it.
        if (!everTimed_ && untimed() > sinceClock_) {
            next_ -= guess(untimed() - sinceClock_);
            if (kind_ == InputKind::kFile)
                offset_ = -next_;
        }
        spread(clockTime_);
    } else {
        if (everTimed_ && kind_ == InputKind::kLive && !isClocked(now))
            spreadByArrival();
        else if (everTimed_)
            spread(next_ + guess(untimed()));
        clockTime_ = next_;
    }
    if (step || !clock_)
        stepSeen_ = now;
    clock_ = pcr;
    candidate_.reset();
    clockSeen_ = now;
    sinceClock_ = 0;
    if (everTimed_)
        observation_ = {clockTime_, now};
}

void TimedPackets::noteRate(double packets, double seconds) {
    shownPackets_ += packets;
    shownSeconds_ += seconds;
    if (shownSeconds_ > kRateMemory_s) {
        shownPackets_ /= 2.0;
        shownSeconds_ /= 2.0;
    }
}

// Stands in while there is no PCR. A pause is not the rate.
void TimedPackets::measureArrival(Ticks now) {
    const Ticks length = now - windowBegin_;
    if (length >= kRateWindow && windowPackets_ > 0) {
        if (length < 2 * kRateWindow)
            noteRate(static_cast<double>(windowPackets_),
                     static_cast<double>(length) / double{kTicksPerSecond});
        windowPackets_ = 0;
    }
    if (windowPackets_++ == 0)
        windowBegin_ = now;
}

// Gives the packets that have no time yet theirs, evenly up to `end`. Those that were timed by
// guess may have gone beyond.
void TimedPackets::spread(Ticks end) {
    const size_t count = untimed();
    const Ticks length = std::max<Ticks>(end - next_, 0);
    for (size_t i = 0; i < count; ++i)
        packets_[timed_ + i].time = next_ + share(length, i, count);
    timed_ += count;
    next_ += length;
    everTimed_ = true;
}

// Without a clock, a packet's own time is that at which it came.
void TimedPackets::spreadByArrival() {
    if (!std::exchange(hasOffset_, true)) {
        offset_ = latency_;
        meanDelay_ = static_cast<double>(latency_);
    }
    for (; timed_ < packets_.size(); ++timed_) {
        Packet& packet = packets_[timed_];
        next_ = std::max(next_, packet.arrival + latency_ - offset_);
        packet.time = next_;
    }
    everTimed_ = true;
}

void TimedPackets::settle(Time time) {
    const Ticks now = toTicks(time);
    if (kind_ == InputKind::kFile)
        return;
    if (untimed() > 0 && !isClocked(now) && now - packets_[timed_].arrival > latency_ / 2) {
        spreadByArrival();
        if (now - clockSeen_ > kClockSilence)
            clock_.reset();
        return;
    }
    if (untimed() > 0 && everTimed_ && knownTo() <= now &&
        now - packets_[timed_].arrival > kPcrPatience)
        spread(next_ + guess(untimed()));
    if (observation_)
        steer();
}

// Steers the offset by what the packet that came last will have to wait. After a hold-up many come
// at once, and only the last of them tells how things stand.
void TimedPackets::steer() {
    const auto [streamTime, now] = *observation_;
    observation_.reset();
    const auto elapsed = static_cast<double>(std::clamp<Ticks>(now - steered_, 0, kTicksPerSecond));
    steered_ = std::max(steered_, now);
    const auto wanted = static_cast<double>(latency_);
    const Ticks delay = hasOffset_ ? offset_ + streamTime - now : 0;
    meanDelay_ += (static_cast<double>(delay) - meanDelay_) * std::min(elapsed / kMeanTime, 1.0);
    if (!hasOffset_ || delay < -latency_ || delay > latency_ + kMostEarly || meanDelay_ < 0.0 ||
        meanDelay_ > wanted + kMostEarly / 2.0) {
        offset_ = now + latency_ - streamTime;
        meanDelay_ = wanted;
        cuts_ += std::exchange(hasOffset_, true) ? 1 : 0;
        return;
    }
    const double change = (wanted - meanDelay_) / kSteerTime;
    steering_ += std::clamp(change, -kMostSteering, kMostSteering) * elapsed;
    const double ticks = std::trunc(steering_);
    steering_ -= ticks;
    offset_ += static_cast<Ticks>(ticks);
}

std::optional<double> TimedPackets::rate() const {
    if (shownSeconds_ <= 0.0)
        return std::nullopt;
    return shownPackets_ * static_cast<double>(packetSize_ * 8) / shownSeconds_;
}

}  // namespace ts
