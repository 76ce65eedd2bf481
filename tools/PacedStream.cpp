#include "PacedStream.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <utility>

#include "Errors.h"

namespace {

using namespace std::chrono_literals;

constexpr size_t kChunkBytes = size_t{64} * 1024;
constexpr size_t kMostAhead = size_t{64} * 1024 * 1024;  // where PCRs are rare, or the rate is high
constexpr auto kStopLatency = 50ms;
constexpr auto kStretch = 250ms;  // shorter, and the largest pictures would each be one
constexpr auto kMeasureTime = 1s;
constexpr size_t kMeasureBytes = size_t{8} * 1024 * 1024;

double seconds(std::chrono::nanoseconds time) {
    return std::chrono::duration<double>(time).count();
}

}  // namespace

PacedStream::PacedStream(const SendJob& job, bool followed)
    : given_bps_(job.bitrate_bps),
      followed_(followed && !given_bps_),
      start_(job.start.value_or(0ms)),
      duration_(job.duration),
      source_(job.input, job.loop) {}

void PacedStream::open(StopSignal& stop) {
    source_.open(false, stop);
    if (start_ > 0ns || duration_)
        time_.emplace(source_.packetSize(), given_bps_);
    goToStart(stop);
    if (given_bps_)
        bitrate_bps_ = *given_bps_;
    else
        measure(stop);
}

void PacedStream::measure(StopSignal& stop) {
    follower_.emplace(source_.packetSize(), kStretch);
    while (!stop.requested() && !knowsRate() && !inputEnded() && available() < kMostAhead)
        readAhead(available() + kChunkBytes, kStopLatency);
    if (stop.requested())
        return;
    if (follower_->point().bytes == 0)
        follower_->finish();
    notePoint();
    const RateFollower::Point point = follower_->point();
    if (point.bytes == 0)
        throw Failure(fmt::format("{} has no PCRs to tell its rate by; give it with --bitrate",
                                  source_.name()));
    const double rate_bps = static_cast<double>(point.bytes) * 8.0 / seconds(point.time);
    if (rate_bps > UINT32_MAX)
        throw Failure(fmt::format("by its PCRs, {} has {:.0f} bit/s; give its rate with --bitrate",
                                  source_.name(), rate_bps));
    bitrate_bps_ = std::max(1u, static_cast<uint32_t>(std::llround(rate_bps)));
}

// A rate that is kept throughout has to be a good one.
bool PacedStream::knowsRate() const {
    return follower_->point().time >= kMeasureTime &&
           (followed_ || !source_.isFile() || available() >= kMeasureBytes);
}

// Reads all that is skipped, since only the clock in it tells how much that is.
void PacedStream::goToStart(StopSignal& stop) {
    if (start_ == 0ns)
        return;
    std::chrono::nanoseconds time{0};
    while (!stop.requested()) {
        const auto packets = source_.take(kChunkBytes, kStopLatency);
        for (size_t at = 0; at < packets.size(); at += source_.packetSize()) {
            time = time_->add(packets.data() + at);
            if (time < start_)
                continue;
            source_.putBack(packets.size() - at);
            source_.loopFromHere();
            time_.emplace(source_.packetSize(), given_bps_);
            return;
        }
        if (!source_.ended())
            continue;
        if (!time_->isKnown())
            throw Failure(
                fmt::format("{} has no PCRs to tell its time by; give --bitrate", source_.name()));
        throw Failure(fmt::format("{} ends after {:.1f} s, before the start at {:.1f} s",
                                  source_.name(), seconds(time), seconds(start_)));
    }
}

// With a point behind all that was handed out, the pace is known when the wire comes to any of it.
bool PacedStream::knowsPaceOf(uint64_t bytes) const {
    return !follower_ || (!followed_ && bitrate_bps_ != 0) || follower_->point().bytes >= bytes;
}

void PacedStream::readAhead(size_t limit, std::chrono::milliseconds wait) {
    if (begin_ >= kChunkBytes && begin_ >= available()) {
        ahead_.erase(ahead_.begin(), ahead_.begin() + static_cast<std::ptrdiff_t>(begin_));
        begin_ = 0;
    }
    while (!inputEnded() &&
           (available() < limit || (!knowsPaceOf(taken_ + limit) && available() < kMostAhead))) {
        const auto packets = source_.take(kChunkBytes, available() == 0 ? wait : 0ms);
        if (packets.empty() && !source_.ended())
            return;
        add(packets);
    }
    if (inputEnded() && follower_ && !std::exchange(finished_, true)) {
        follower_->finish();
        notePoint();
    }
}

void PacedStream::add(std::span<const uint8_t> packets) {
    for (; !packets.empty(); packets = packets.subspan(source_.packetSize())) {
        if (duration_ && time_->add(packets.data()) >= *duration_) {
            complete_ = true;
            return;
        }
        if (follower_) {
            follower_->add(packets.data());
            notePoint();
        }
        ahead_.insert(ahead_.end(), packets.begin(),
                      packets.begin() + static_cast<std::ptrdiff_t>(source_.packetSize()));
    }
}

void PacedStream::notePoint() {
    const auto& point = follower_->point();
    if (!followed_) {
        const double asked = static_cast<double>(point.bytes) * 8.0 / std::max(1u, bitrate_bps_);
        const std::chrono::duration<double> off(std::abs(asked - seconds(point.time)));
        if (bitrate_bps_ != 0)
            offPace_ =
                std::max(offPace_, std::chrono::duration_cast<std::chrono::nanoseconds>(off));
        return;
    }
    if (point.bytes > (points_.empty() ? passed_ : points_.back()).bytes)
        points_.push_back(point);
}

std::optional<PacedStream::Stretch> PacedStream::stretch(uint64_t byte) {
    while (!points_.empty() && points_.front().bytes <= byte) {
        passed_ = points_.front();
        points_.pop_front();
    }
    if (points_.empty())
        return std::nullopt;
    return Stretch{passed_, points_.front()};
}

std::span<const uint8_t> PacedStream::take(size_t limit, std::chrono::milliseconds wait) {
    readAhead(limit, wait);
    const size_t most = limit / source_.packetSize() * source_.packetSize();
    const auto packets =
        std::span<const uint8_t>(ahead_).subspan(begin_, std::min(most, available()));
    begin_ += packets.size();
    taken_ += packets.size();
    return packets;
}
