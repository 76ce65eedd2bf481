#include "PacedQueue.h"

#include <algorithm>
#include <cmath>

namespace {

// PIDs without a PCR for so long do not count any more.
constexpr double kClockSilence_s = 1.0;
// PCRs come every 100 ms at least; with laxer ones, the packets behind the last are due before the
// next one has come.
constexpr double kPcrPatience_s = 0.150;

// The rate of a stream without PCRs: a first guess, then by the second.
constexpr double kFirstWindow_s = 0.25;
constexpr double kWindow_s = 1.0;
constexpr double kWindowGap_s = 0.5;  // a pause is not the rate
constexpr double kWindowWeight = 0.25;

constexpr double kRateMemory_s = 4.0;

constexpr double kSteerTime_s = 30.0;
constexpr double kCoarseSteerTime_s = 5.0;
constexpr double kCoarseSteering = 0.1;
constexpr double kMeanTime_s = 2.0;  // longer than the jitter of most networks
constexpr double kMostMean_s = 4.0 * PacedQueue::kDelay;

}  // namespace

void PacedQueue::add(const uint8_t* packet, size_t size, double now) {
    packetSize_ = size;
    if (given_bps_)
        secondsPerPacket_ = static_cast<double>(size) * 8.0 / static_cast<double>(*given_bps_);
    else if (const auto pcr = readPcr(packet))
        follow(*pcr, now);
    measureArrival(now);
    Packet& added = packets_.emplace_back();
    std::copy_n(packet, size, added.bytes.begin());
    added.arrival = now;
    ++sinceClock_;
}

bool PacedQueue::isClocked(double now) const {
    return clock_ && now - clockSeen_ <= kClockSilence_s;
}

// The packet with the PCR is about to be added.
void PacedQueue::follow(const Pcr& pcr, double now) {
    const bool silent = now - clockSeen_ > kClockSilence_s;
    if (clock_ && clock_->pid != pcr.pid && !silent)
        return;
    const auto step = clock_ && clock_->pid == pcr.pid ? pcrStep(clock_->ticks, pcr) : std::nullopt;
    if (step && *step == 0)
        return;
    if (step) {
        const double seconds = static_cast<double>(*step) / static_cast<double>(kPcrHz);
        secondsPerPacket_ = seconds / static_cast<double>(sinceClock_);
        ratePackets_ += static_cast<double>(sinceClock_);
        rateSeconds_ += seconds;
        if (rateSeconds_ > kRateMemory_s) {
            ratePackets_ /= 2.0;
            rateSeconds_ /= 2.0;
        }
        clockTime_ += seconds;
        // What came before the first PCR of all flows as what follows it.
        if (!everTimed_ && untimed() > sinceClock_)
            next_ -= static_cast<double>(untimed() - sinceClock_) * secondsPerPacket_;
        spread(clockTime_);
    } else {
        ratePackets_ = rateSeconds_ = 0.0;
        if (everTimed_)
            spread(next_ + static_cast<double>(untimed()) * secondsPerPacket_);
        clockTime_ = next_;
    }
    clock_ = pcr;
    clockSeen_ = now;
    sinceClock_ = 0;
    observation_ = {clockTime_, now};
}

// Stands in while there is no PCR.
void PacedQueue::measureArrival(double now) {
    const bool paused = now - lastArrival_ > kWindowGap_s;
    lastArrival_ = now;
    if (given_bps_ || isClocked(now) || paused) {
        windowBegin_ = now;
        windowPackets_ = 0;
        return;
    }
    ++windowPackets_;
    const double length = now - windowBegin_;
    if (length < (secondsPerPacket_ == 0.0 ? kFirstWindow_s : kWindow_s))
        return;
    const double measured = length / static_cast<double>(windowPackets_);
    // The first guess is replaced by the first whole window.
    const double weight = windows_ < 2 ? 1.0 : std::max(kWindowWeight, 1.0 / windows_);
    ++windows_;
    secondsPerPacket_ += (measured - secondsPerPacket_) * weight;
    ratePackets_ = 1.0 / secondsPerPacket_;
    rateSeconds_ = 1.0;
    windowBegin_ = now;
    windowPackets_ = 0;
}

// Gives the packets that have no time yet theirs, evenly up to `end`.
void PacedQueue::spread(double end) {
    const size_t count = untimed();
    // Packets that were timed by guess may have gone beyond.
    const double length = std::max(end - next_, 0.0);
    for (size_t i = 0; i < count; ++i)
        packets_[timed_ + i].time =
            next_ + length * static_cast<double>(i) / static_cast<double>(count);
    timed_ += count;
    next_ += length;
    everTimed_ = true;
}

void PacedQueue::timeOverdue(double now) {
    if (untimed() == 0 || secondsPerPacket_ == 0.0)
        return;
    const bool clocked = isClocked(now);
    if (clocked && now - packets_[timed_].arrival <= kPcrPatience_s)
        return;
    spread(next_ + static_cast<double>(untimed()) * secondsPerPacket_);
    if (!clocked)
        observation_ = {next_, packets_.back().arrival};
}

// Steers the offset by what the packet that came last will have to wait. After a hold-up many come
// at once, and only the last of them tells how things stand.
void PacedQueue::steer() {
    const auto [streamTime, now] = *observation_;
    observation_.reset();
    const double elapsed = std::clamp(now - steered_, 0.0, 1.0);
    steered_ = std::max(steered_, now);
    const double delay = offset_ ? *offset_ + streamTime - now : 0.0;
    if (offset_)
        meanDelay_ += (delay - meanDelay_) * std::min(elapsed / kMeanTime_s, 1.0);
    if (!offset_ || delay < -kDelay || delay > kMostDelay || meanDelay_ < 0.0 ||
        meanDelay_ > kMostMean_s) {
        offset_ = now + kDelay - streamTime;
        meanDelay_ = kDelay;
        ++offsets_;
        return;
    }
    // Where the rate is no more than an estimate, there is no exact pace to be kept.
    const bool exact = given_bps_ || isClocked(now);
    const double most = exact ? kSteering : kCoarseSteering;
    const double wanted = (kDelay - meanDelay_) / (exact ? kSteerTime_s : kCoarseSteerTime_s);
    *offset_ += std::clamp(wanted, -most, most) * elapsed;
}

std::span<const uint8_t> PacedQueue::takeDatagram(double now) {
    timeOverdue(now);
    if (observation_)
        steer();
    if (timed_ < kPacketsPerDatagram || !offset_ || *offset_ + packets_.front().time > now)
        return {};
    return take(kPacketsPerDatagram);
}

std::span<const uint8_t> PacedQueue::takeRest() {
    if (packets_.empty())
        return {};
    const auto taken = take(std::min(packets_.size(), kPacketsPerDatagram));
    appendNullPackets(datagram_, packetSize_, kPacketsPerDatagram - taken.size() / packetSize_);
    return datagram_;
}

std::span<const uint8_t> PacedQueue::take(size_t count) {
    datagram_.clear();
    for (size_t i = 0; i < count; ++i) {
        const auto& bytes = packets_.front().bytes;
        datagram_.insert(datagram_.end(), bytes.begin(),
                         bytes.begin() + static_cast<std::ptrdiff_t>(packetSize_));
        packets_.pop_front();
    }
    // The rest may be taken without having been timed.
    timed_ -= std::min(timed_, count);
    return datagram_;
}

std::optional<uint32_t> PacedQueue::bitrate() const {
    if (given_bps_)
        return given_bps_;
    if (rateSeconds_ <= 0.0)
        return std::nullopt;
    const double bits = ratePackets_ * static_cast<double>(packetSize_) * 8.0;
    return static_cast<uint32_t>(std::clamp(bits / rateSeconds_, 1.0, 4294967295.0));
}
